#include "boot_log/uptime.h"

#include <cstdlib>

#include "agent/debug_trace.h"
#include "boot_log/file_utilities.h"

std::uint64_t at_get_uptime_fm_sys()
{
    file_ptr file(std::fopen("/proc/uptime", "r"));
    if (!file) {
        attest_trace("failed to open /proc/uptime");
        return 0;
    }
    // The conversion ends at the decimal point; of a text without a number it makes 0.
    char text[64] = "";
    std::uint64_t uptime = 0;
    if (std::fgets(text, sizeof text, file.get()) != nullptr)
        uptime = std::strtoul(text, nullptr, 10);
    attest_trace("\nUptime %llu", static_cast<unsigned long long>(uptime));
    return uptime;
}
