// What trace lines cost beside the bare formatting of the same lines, and what a line costs that is switched
// off beside one that is formatted. A pass is 1000 lines.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/ratio.h"
#include "platform/trace.h"

namespace {

constexpr int LINES = 1000;

trace_buffer *ring;
trace_flag *flag_on;
trace_flag *flag_off;

const std::string digest_text(64, 'A');
const std::string dump_text(1024, 'B');

// The yardstick: like trace_log a function of its own that formats into its stack, and no more.
__attribute__((format(printf, 1, 2), noinline)) void format_line(const char *format, ...)
{
    char line[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    benchmark::DoNotOptimize(line);
}

#define TRACED(flag, name, ...)                                                                              \
    void name(benchmark::State &state)                                                                       \
    {                                                                                                        \
        static std::uint32_t site_state = TRACE_SITE_INIT;                                                   \
        for (auto _ : state) {                                                                               \
            for (int line = 0; line < LINES; ++line) {                                                       \
                if (trace_flag_enabled(flag))                                                                \
                    trace_log(flag, ring, &site_state, __VA_ARGS__);                                         \
            }                                                                                                \
        }                                                                                                    \
    }
#define FORMATTED(name, ...)                                                                                 \
    void name(benchmark::State &state)                                                                       \
    {                                                                                                        \
        for (auto _ : state) {                                                                               \
            for (int line = 0; line < LINES; ++line)                                                         \
                format_line(__VA_ARGS__);                                                                    \
        }                                                                                                    \
    }

#define EVENT_LINE                                                                                           \
    "%s():   EventType: %02x (%s)\n", "parse_event_log", 0x80000003U, "EV_EFI_VARIABLE_AUTHORITY"
#define DIGEST_LINE "%s(): \n %s", "print_hexstring", digest_text.c_str()
#define DUMP_LINE "%s(): \n %s", "print_hexstring", dump_text.c_str()
#define PLAIN_LINE "%s(): \n    [truncated]", "print_hexstring"

TRACED(flag_on, event_traced, EVENT_LINE)
FORMATTED(event_formatted, EVENT_LINE)
TRACED(flag_on, digest_traced, DIGEST_LINE)
FORMATTED(digest_formatted, DIGEST_LINE)
TRACED(flag_on, dump_traced, DUMP_LINE)
FORMATTED(dump_formatted, DUMP_LINE)
TRACED(flag_on, plain_traced, PLAIN_LINE)
FORMATTED(plain_formatted, PLAIN_LINE)
TRACED(flag_off, event_switched_off, EVENT_LINE)

RATIO_BENCHMARK("trace line: boot event type", 2.0, event_traced, event_formatted);
RATIO_BENCHMARK("trace line: dump of a digest", 2.0, digest_traced, digest_formatted);
RATIO_BENCHMARK("trace line: dump of 512 bytes", 2.0, dump_traced, dump_formatted);
RATIO_BENCHMARK("trace line: no number to format", 2.0, plain_traced, plain_formatted);
RATIO_BENCHMARK("trace line: boot event type, switched off", 0.05, event_switched_off, event_formatted);

bool open_trace()
{
    return trace_buffer_init(&ring, "bench", 0, 0x100000) == 0 &&
           trace_flag_init(&flag_on, "on", nullptr, 0, 0) == 0 &&
           trace_flag_init(&flag_off, "off", nullptr, 0, 0) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    std::string directory = "/dev/shm/bench_trace.XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
        return 1;
    setenv("ATTEST_RUN_DIR", directory.c_str(), 1);
    setenv("ATTEST_TRACE", "on", 1);
    int result = 1;
    if (open_trace()) {
        result = ratio_main(argc, argv);
        trace_buffer_close(&ring);
    }
    std::filesystem::remove_all(directory);
    return result;
}
