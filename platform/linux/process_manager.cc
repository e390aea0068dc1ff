#include "platform/process_manager.h"

#include <systemd/sd-daemon.h>

#include "platform/status.h"

std::uint32_t sysmgr_proc_ready()
{
    // The notification socket stays in the environment: the event loop feeds the watchdog through it.
    int result = sd_notify(0, "READY=1");
    return result < 0 ? platform_status_from_errno(-result) : 0;
}
