// The streamed IMA list: the BMC's part first, then the node's, which the retrieval sends chunk by chunk and
// this ends, pauses or resumes.
#include "agent/handlers.h"

#include "agent/debug_trace.h"
#include "agent/ima_request.h"
#include "agent/metrics.h"
#include "agent/status.h"
#include "bmc/bmc_operations.h"
#include "ima/ima_retrieval.h"
#include "ima/ima_stream.h"

namespace {

struct stream_position {
    std::uint32_t request_id;
    std::uint64_t start_event;
    std::uint64_t event_count; // 0: no limit
    std::uint64_t unsent;      // the first event that the client does not have yet; 0: it has none
};

void send_message(remote_attestation_api_client client, const NodeIMAData &message, int last,
                  std::uint32_t request_id)
{
    remote_attestation_api_stream_ima_event_logs_Resp(client, &message, last, 0, request_id);
}

void send_bmc_part(remote_attestation_api_client client, const get_platform_ima_event_logs_request *request,
                   std::uint32_t request_id)
{
    owned_message<NodeIMAData> bmc;
    std::uint32_t status = attestation_get_bmc_ima_event_logs(request, bmc.get());
    count_source("StreamPlatformImaEventLogs", SOURCE_BMC, status);
    if (status == ATTEST_OK)
        send_message(client, *bmc, 0, request_id);
}

// Takes the client's paused stream back. False when it has none.
bool take_back(remote_attestation_api_client client, stream_position *position)
{
    if (remote_attestation_api_server_get_user_context(client) != STREAM_PAUSED_MARK)
        return false;
    if (at_ima_stream_resume(client, &position->request_id, &position->start_event, &position->event_count,
                             &position->unsent) == 0)
        return false;
    remote_attestation_api_server_set_user_context(client, 0);
    return true;
}

// Sends what the retrieval left, as the stream's last message; refused, it waits for the flow to open.
void send_final_message(remote_attestation_api_client client, const NodeIMAData &message,
                        const stream_position &position)
{
    std::int32_t result =
        remote_attestation_api_stream_ima_event_logs_Resp(client, &message, 1, 0, position.request_id);
    bool has_events = (message.present & message.has_events) != 0 && message.events.count > 0;
    if (result != REMOTE_ATTESTATION_API_FLOW_CLOSED || !has_events)
        return;
    std::uint64_t count = position.event_count != 0 ? message.events.count : 0;
    const std::uint64_t first = message.events.items[0].event_num;
    if (at_ima_stream_pause(client, position.request_id, first, count, first) != 0)
        remote_attestation_api_server_set_user_context(client, STREAM_PAUSED_MARK);
}

void stream_local_events(remote_attestation_api_client client, const stream_position &position)
{
    owned_message<NodeIMAData> message;
    std::uint32_t status =
        attestation_get_local_ima_event_logs(position.start_event, position.event_count, message.get(),
                                             client, position.request_id, 1, position.unsent);
    if (status != ATTEST_OK && status != ATTEST_ERR_FLOW_PAUSED)
        send_final_message(client, *message, position);
}

} // namespace

void stream_platform_ima_event_logs(remote_attestation_api_client client,
                                    const get_platform_ima_event_logs_request *request,
                                    std::uint32_t request_id)
{
    attest_trace("Attestation agent: attest_ima request id %d\n", static_cast<int>(request_id));
    stream_position position = {request_id, 0, 0, 0};
    if (request != nullptr) {
        position.start_event = start_event_of(*request);
        position.event_count = event_count_of(*request);
        send_bmc_part(client, request, request_id);
    } else if (!take_back(client, &position)) {
        send_message(client, NodeIMAData{}, 1, request_id);
        return;
    }
    stream_local_events(client, position);
}

void flow_control_cb(remote_attestation_api_client client)
{
    attest_trace("Attestation Agent: received flow resume callback for %lu", client);
    stream_platform_ima_event_logs(client, nullptr, 0);
}

void error_cb(remote_attestation_api_client client, void *, std::uint32_t error)
{
    attest_trace("Attestation Agent: generic error %d.\n", static_cast<int>(error));
    stream_position dropped = {};
    at_ima_stream_resume(client, &dropped.request_id, &dropped.start_event, &dropped.event_count);
}
