// The time stamp of the evidence records.
#pragma once

#include <cstdint>

// Whole seconds since boot, as /proc/uptime has them; 0 when they cannot be read.
std::uint64_t at_get_uptime_fm_sys();
