#include "boot_log/trace_dump.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <span>

#include "agent/debug_trace.h"
#include "platform/owners.h"

std::int32_t verbose = 1;
std::int32_t ascii = 0;

namespace {

// Without `verbose`: the text of 512 bytes in hexadecimal, of 1024 bytes as they are, and the NUL.
constexpr std::size_t FIXED_TEXT_SIZE = 1025;

// Writes the NUL-terminated text of the bytes into `text`, which has room for it.
using renderer = void (*)(std::span<const std::uint8_t> bytes, char *text);

void render_hex(std::span<const std::uint8_t> bytes, char *text)
{
    constexpr char digits[] = "0123456789ABCDEF";
    for (std::uint8_t byte : bytes) {
        *text++ = digits[byte >> 4];
        *text++ = digits[byte & 0xF];
    }
    *text = '\0';
}

void render_printable(std::span<const std::uint8_t> bytes, char *text)
{
    for (std::uint8_t byte : bytes) {
        bool white_space = byte >= 0x09 && byte <= 0x0D;
        bool printable = byte >= 0x20 && byte <= 0x7E;
        if (white_space || printable)
            *text++ = static_cast<char>(byte);
    }
    *text = '\0';
}

void dump(const char *operation, renderer render, std::size_t characters_per_byte,
          std::span<const std::uint8_t> bytes)
{
    if (!trace_flag_enabled(attest_dbg_flag_agent))
        return;
    char fixed[FIXED_TEXT_SIZE];
    malloc_ptr<char> allocated;
    char *text = fixed;
    std::size_t rendered = bytes.size();
    if (verbose != 0) {
        allocated.reset(static_cast<char *>(std::calloc(characters_per_byte * bytes.size() + 1, 1)));
        if (!allocated)
            return;
        text = allocated.get();
    } else {
        rendered = std::min(rendered, (FIXED_TEXT_SIZE - 1) / characters_per_byte);
    }
    render(bytes.first(rendered), text);
    attest_trace_as(operation, "\n %s", text);
    if (rendered < bytes.size())
        attest_trace_as(operation, "\n    [truncated]");
}

} // namespace

void print_hexstring(const void *bytes, std::uint32_t length)
{
    dump(__func__, render_hex, 2, {static_cast<const std::uint8_t *>(bytes), length});
}

void print_asciistring(const void *bytes, std::uint32_t length)
{
    dump(__func__, render_printable, 1, {static_cast<const std::uint8_t *>(bytes), length});
}
