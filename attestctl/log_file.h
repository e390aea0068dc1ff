// The commands of the logs with --format: one node's log, whole or not at all, to the standard output.
#pragma once

#include "attestctl/client.h"
#include "attestctl/options.h"

// They return the exit status, and say what is wrong.
int write_boot_log(const settings &chosen,
                   const api::get_platform_boot_integrity_event_logs_response &answer);
int run_ima_log_file(const settings &chosen, client &c,
                     const api::get_platform_ima_event_logs_request &request);
