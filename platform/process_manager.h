// The process manager that started this process and watches it.
#pragma once

#include <cstdint>

// Tells the process manager that the process is up. 0, also when no manager listens; else a platform status.
std::uint32_t sysmgr_proc_ready();
