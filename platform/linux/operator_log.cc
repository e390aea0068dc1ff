#include "platform/operator_log.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "platform/linux/log_sink.h"

void operator_log(int priority, const char *format, ...)
{
    std::array<char, LOG_TEXT_MAX> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    log_sink_send(priority, program_invocation_short_name, text.data(), {}, "");
}
