// attestation_agent: the life of the process.
#include <cstdio>
#include <cstring>
#include <malloc.h>

#include "agent/debug_trace.h"
#include "agent/gauges.h"
#include "agent/node_location.h"
#include "agent/server_start.h"
#include "agent/settings_check.h"
#include "agent/signals.h"
#include "agent/status.h"
#include "agent/system_messages.h"
#include "platform/levm.h"
#include "platform/metrics.h"
#include "platform/node_identity.h"
#include "platform/process_manager.h"
#include "trust_anchor/local_init.h"

namespace {

levm *at_event_manager;

// The agent is configured by its environment alone. Returns the exit status when there is nothing to start.
int refuse_arguments(const char *argument)
{
    if (std::strcmp(argument, "--version") == 0) {
        std::puts("attestation_agent " ATTEST_VERSION);
        return 0;
    }
    bool help = std::strcmp(argument, "--help") == 0;
    if (!help)
        std::fprintf(stderr, "attestation_agent: unknown argument '%s'\n", argument);
    std::fputs(
        "usage: attestation_agent [--help | --version]\n"
        "Serves remote attestation evidence of this node; settings come from the environment (ATTEST_*).\n",
        help ? stdout : stderr);
    return help ? 0 : 1;
}

// An answer of 50,000 events takes 24 MB in pieces and one of 7 MB, and the C library would give them back to
// the kernel after each answer: the next one then costs a page fault for every 4 KiB, more than all the rest
// of its work. So memory freed at the heap's end is kept up to this size.
void keep_memory_for_the_next_answer()
{
    constexpr int KEPT_BYTES = 32 << 20;
    mallopt(M_MMAP_THRESHOLD, KEPT_BYTES);
    mallopt(M_TRIM_THRESHOLD, KEPT_BYTES);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1)
        return refuse_arguments(argv[1]);

    keep_memory_for_the_next_answer();
    at_server_handle = nullptr;
    sysmgr_proc_ready();
    status_domain_register(&attest_status_domain);

    at_event_manager = levm_create("levm", 0);
    if (at_event_manager == nullptr) {
        raise_system_message(msg_rec_attestation_agent_init,
                             "Attestation Agent: Unable to instantiate levm\n");
        return 0;
    }
    // The agent serves what it can: neither metrics, nor a trace, nor the trust anchor is needed to answer.
    metrics_collect_with(collect_agent_gauges, nullptr);
    metrics_start(at_event_manager);
    tell_wrong_settings();
    attest_dbg_init();
    attestation_local_init();
    at_install_signal_handlers();

    char node_name[NODE_NAME_SIZE];
    if (platform_get_node_name(node_name, sizeof node_name) != 0) {
        raise_system_message(msg_rec_attestation_agent_init, "Unable to get platform node info");
        return 1;
    }
    char service_instance[52];
    std::snprintf(service_instance, sizeof service_instance, "rat_agent_%s", node_name);
    attestation_agent_server_start(at_event_manager, service_instance);

    // Also after a start that failed: the message has told why, and the end is an orderly one.
    attest_trace("exited from levm_block()\n");
    if (at_server_handle != nullptr) {
        remote_attestation_api_server_deactivate(at_server_handle);
        remote_attestation_api_server_handle_destroy(at_server_handle);
    }
    metrics_stop();
    levm_destroy(at_event_manager);
    attest_dbg_deinit();
    return 0;
}
