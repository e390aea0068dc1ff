#include "attestctl/log_file.h"
#include "attestctl/output.h"

int run_boot_log(const settings &chosen, client &c)
{
    api::get_platform_boot_integrity_event_logs_response answer;
    const ask_result result = ask(c, api::get_platform_boot_integrity_event_logs_request(), answer);
    if (chosen.format != log_format::table && result.status == ask_status::answered &&
        !answer.node_data().empty())
        return write_boot_log(chosen, answer);
    return show(chosen, result, answer, "boot log");
}
