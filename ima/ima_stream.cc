#include "ima/ima_stream.h"

#include "agent/agent_state.h"
#include "agent/debug_trace.h"

std::int32_t at_ima_stream_pause(remote_attestation_api_client client, std::uint32_t request_id,
                                 std::uint64_t start_event, std::uint64_t event_count, std::uint64_t unsent)
{
    at_paused_stream_slot &slot = at_agent_state.at_paused_stream;
    if (slot.paused != 0) {
        attest_trace("IMA request pending with %u, giving up on id %u\n", slot.request_id, request_id);
        return 0;
    }
    slot = {1, client, request_id, start_event, event_count, unsent};
    return 1;
}

std::int32_t at_ima_stream_resume(remote_attestation_api_client client, std::uint32_t *request_id,
                                  std::uint64_t *start_event, std::uint64_t *event_count,
                                  std::uint64_t *unsent)
{
    at_paused_stream_slot &slot = at_agent_state.at_paused_stream;
    if (request_id == nullptr || start_event == nullptr || event_count == nullptr)
        return 0;
    if (slot.paused == 0 || slot.client != client)
        return 0;
    attest_trace("IMA resuming paused flow id %u\n", slot.request_id);
    *start_event = slot.start_event;
    *event_count = slot.event_count;
    *request_id = slot.request_id;
    if (unsent != nullptr)
        *unsent = slot.unsent;
    slot = {};
    return 1;
}
