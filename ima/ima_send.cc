#include "ima/ima_send.h"

#include "agent/debug_trace.h"
#include "ima/ima_stream.h"

namespace {

struct resume_point {
    std::uint64_t start_event;
    std::uint64_t event_count;
    std::uint64_t unsent; // the first event that the client does not have
};

std::uint64_t left_of(std::uint64_t limit, std::uint64_t done)
{
    return limit != 0 ? limit - done : 0;
}

struct place_row {
    const char *operation; // under whose name is traced
    resume_point (*resume)(const ima_retrieval &retrieval, std::uint64_t first,
                           const send_position &position);
};

// In the order of send_place. A start event from the cache names an event of the chunk that comes first, one
// for the live list the event before.
constexpr place_row PLACES[] = {
    {"at_send_ima_from_cache",
     [](const ima_retrieval &retrieval, std::uint64_t, const send_position &) {
         return resume_point{retrieval.start_event, retrieval.event_count, retrieval.unsent};
     }},
    {"at_send_ima_from_cache",
     [](const ima_retrieval &retrieval, std::uint64_t first, const send_position &position) {
         return resume_point{first, left_of(retrieval.event_count, position.events_counted), first};
     }},
    {"attestation_get_local_ima_event_logs",
     [](const ima_retrieval &retrieval, std::uint64_t first, const send_position &position) {
         return resume_point{position.cached ? first : first - 1,
                             left_of(retrieval.event_count, position.events_counted), first};
     }},
};

bool pause(const ima_retrieval &retrieval, const place_row &place, const resume_point &point)
{
    if (at_ima_stream_pause(retrieval.client, retrieval.request_id, point.start_event, point.event_count,
                            point.unsent) != 1)
        return false;
    attest_trace_as(place.operation, "Slowing down cache responses");
    remote_attestation_api_server_set_user_context(retrieval.client, STREAM_PAUSED_MARK);
    return true;
}

} // namespace

bool send_chunk(ima_retrieval &retrieval, event_array &events, send_place place,
                const send_position &position)
{
    const place_row &row = PLACES[static_cast<std::size_t>(place)];
    std::uint64_t first = events.count() != 0 ? events.items()[0].event_num : 0;
    NodeIMAData &message = *retrieval.reply;
    message.events = events.list();
    message.present |= message.has_events;
    std::int32_t result = remote_attestation_api_stream_ima_event_logs_Resp(retrieval.client, &message, 0, 0,
                                                                            retrieval.request_id);
    message.events = {};
    message.present &= ~message.has_events;
    events.clear();
    if (result == 0)
        return true;
    if (result == REMOTE_ATTESTATION_API_FLOW_CLOSED &&
        pause(retrieval, row, row.resume(retrieval, first, position))) {
        retrieval.status = ATTEST_ERR_FLOW_PAUSED;
        return false;
    }
    attest_trace_as(row.operation, "CAPI send failed %d", result);
    retrieval.status = ATTEST_ERR_SERVICE_FAILED;
    retrieval.not_sent = true;
    return false;
}
