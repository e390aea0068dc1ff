#include "tools/attest_provision/report.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <openssl/err.h>

bool complain(const std::string &text)
{
    std::fflush(stdout);
    std::fprintf(stderr, "attest-provision: %s\n", text.c_str());
    return false;
}

bool complain_of_status(const std::string &text, kov_status status)
{
    return complain(text + ": " + kov_status_string(status));
}

bool complain_of_openssl(const std::string &text)
{
    const char *reason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    return complain(reason == nullptr ? text : text + ": " + reason);
}

bool complain_of_errno(const std::string &text, int error)
{
    const char *reason = strerrordesc_np(error);
    return complain(text + ": " + (reason != nullptr ? reason : "unknown error"));
}

void say(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
}
