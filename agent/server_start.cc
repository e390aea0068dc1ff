#include "agent/server_start.h"

#include "agent/debug_trace.h"
#include "agent/handlers.h"
#include "agent/status.h"
#include "platform/node_identity.h"

remote_attestation_api_server *at_server_handle;

namespace {

void register_callbacks(remote_attestation_api_server *server, const char *service_instance)
{
    remote_attestation_api_server_set_connect_callback(server, connect_cb);
    remote_attestation_api_server_set_disconnect_callback(server, disconnect_cb);
    remote_attestation_api_server_set_error_callback(server, error_cb);
    remote_attestation_api_server_set_service_instance(server, service_instance);
    remote_attestation_api_server_set_flow_resume_callback(server, flow_control_cb);
    remote_attestation_api_server_set_get_certificate_callback(server, get_certificate);
    remote_attestation_api_server_set_get_platform_boot_integrity_event_logs_callback(
        server, get_platform_boot_integrity_event_logs);
    remote_attestation_api_server_set_attest_pcrs_callback(server, attest_pcrs);
    remote_attestation_api_server_set_get_platform_ima_event_logs_callback(server,
                                                                           get_platform_ima_event_logs);
    remote_attestation_api_server_set_get_platform_hw_integrity_callback(server, get_platform_hw_integrity);
    remote_attestation_api_server_set_stream_ima_event_logs_callback(server, stream_platform_ima_event_logs);
}

// Finds the node's address and serves on it. The status of the step that failed.
std::uint32_t activate(remote_attestation_api_server *server)
{
    constexpr const char *operation = "attestation_agent_server_start";
    std::uint32_t node_id = 0xFFFFFFFF;
    if (std::uint32_t status = platform_get_my_nodeid(&node_id)) {
        attest_trace_as(operation, "Failed to get nodeid: %s", status_strerror(status));
        return status;
    }
    remote_attestation_api_activation parameters = {};
    parameters.present = parameters.has_address;
    if (std::uint32_t status = nodeid_to_InternalEtherIPAddr(node_id, &parameters.endpoint.address)) {
        attest_trace_as(operation, "Failed to get node IP: %s", status_strerror(status));
        return status;
    }
    return remote_attestation_api_server_activate(server, &parameters);
}

} // namespace

void attestation_agent_server_start(levm *event_manager, const char *service_instance)
{
    // Without a handle nothing is registered, and it is the activation that fails and is reported.
    if (remote_attestation_api_server_handle_create(&at_server_handle, event_manager, 0) == 0)
        register_callbacks(at_server_handle, service_instance);
    if (std::uint32_t status = activate(at_server_handle)) {
        attest_trace("Failed instcmd CAPI server start: %s", status_strerror(status));
        return;
    }
    attest_trace("Done attestation agent CAPI server start");
    levm_block(event_manager);
}
