// The data of a boot event of any type, as attestctl shows it: lines that are fit for a terminal.
//
// The input: the event type (4 bytes), the data.
#include "attestctl/event_data.h"
#include "attestctl/text.h"
#include "fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::size_t lines_most = 10'000;
    fuzz_input input{{data, size}};
    const std::uint32_t type = static_cast<std::uint32_t>(input.u16()) << 16 | input.u16();
    const std::vector<std::string> lines = event_data_lines(type, input.text(input.left.size()));
    require(!lines.empty() && lines.size() < lines_most);
    for (std::string_view line : lines) {
        while (!line.empty()) {
            const code_point point = next_utf8(line);
            require(point.length != 0 && !is_unsafe(point.value));
            line.remove_prefix(point.length);
        }
    }
    return 0;
}
