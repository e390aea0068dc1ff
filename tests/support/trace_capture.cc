#include "tests/support/trace_capture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "platform/trace.h"

std::vector<std::string> trace_captured;

struct trace_buffer {};

namespace {
trace_buffer only_buffer;
trace_flag all_flags{1};
} // namespace

void trace_capture_switch_off(bool off)
{
    all_flags.effective = off ? 0 : 1;
}

bool trace_has(const std::string &line)
{
    return std::find(trace_captured.begin(), trace_captured.end(), line) != trace_captured.end();
}

bool trace_has_part(const std::string &part)
{
    return std::any_of(trace_captured.begin(), trace_captured.end(),
                       [&](const std::string &line) { return line.find(part) != std::string::npos; });
}

std::uint32_t trace_buffer_init(trace_buffer **buffer, const char *, std::uint32_t, std::size_t)
{
    *buffer = &only_buffer;
    return 0;
}

std::uint32_t trace_buffer_close(trace_buffer **buffer)
{
    *buffer = nullptr;
    return 0;
}

std::uint32_t trace_flag_init(trace_flag **flag, const char *, trace_flag *, std::uint32_t, std::uint32_t)
{
    *flag = &all_flags;
    return 0;
}

std::uint32_t trace_flag_destroy(trace_flag **flag)
{
    *flag = nullptr;
    return 0;
}

// Captures whether or not the buffer was opened: a test need not set the trace up.
void trace_log(trace_flag *flag, trace_buffer *, std::uint32_t *, const char *format, ...)
{
    if (!trace_flag_enabled(flag) || all_flags.effective == 0)
        return;
    va_list arguments;
    va_start(arguments, format);
    char *line = nullptr;
    if (vasprintf(&line, format, arguments) >= 0) {
        trace_captured.emplace_back(line);
        std::free(line);
    }
    va_end(arguments);
}
