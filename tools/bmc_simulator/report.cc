#include "tools/bmc_simulator/report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

bool fail(const std::string &text)
{
    std::fprintf(stderr, "bmc-simulator: %s\n", text.c_str());
    return false;
}

bool fail_with_errno(const std::string &text)
{
    return fail(text + ": " + std::strerror(errno));
}
