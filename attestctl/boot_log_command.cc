#include "attestctl/output.h"

int run_boot_log(const settings &chosen, client &c)
{
    api::get_platform_boot_integrity_event_logs_response answer;
    const ask_result result = ask(c, api::get_platform_boot_integrity_event_logs_request(), answer);
    return show(chosen, result, answer, "boot log");
}
