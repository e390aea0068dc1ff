#include "ima/ima_retrieval.h"

#include <algorithm>

#include "agent/agent_state.h"
#include "agent/debug_trace.h"
#include "agent/metrics.h"
#include "agent/node_location.h"
#include "boot_log/uptime.h"
#include "ima/deduplication.h"
#include "ima/ima_cache_phase.h"
#include "ima/ima_live_phase.h"
#include "ima/retrieval_state.h"
#include "ima_cache/ima_cache.h"

namespace {

constexpr const char *OPERATION = "attestation_get_local_ima_event_logs";

bool set_up(ima_retrieval &retrieval)
{
    NodeIMAData &reply = *retrieval.reply;
    reply = {};
    reply.uptime = at_get_uptime_fm_sys();
    reply.present |= reply.has_uptime;
    malloc_ptr<char> node_name = allocate_node_location(OPERATION);
    if (node_name == nullptr) {
        retrieval.status = ATTEST_ERR_NO_MEMORY;
        return false;
    }
    reply.node_name = node_name.release();
    reply.present |= reply.has_node_name;
    if (at_agent_state.at_ima_ht == nullptr && !create_ima_ht())
        attest_trace_as(OPERATION,
                        "Failed to create hash table for ima dedup, dedup will not work in this instance");
    retrieval.memory_usage = peak_resident_set();
    attest_trace_as(OPERATION, "Attestation_agent Temporary Mem Usage= %lu", retrieval.memory_usage);
    attest_trace_as(OPERATION, "Soft Limit= %lu", at_soft_data_limit);
    return true;
}

// After the end of the cache: the list goes on behind its last event.
bool continue_at_tail(ima_retrieval &retrieval, live_start &start)
{
    if (at_ima_cache_get_last_offset(&start.offset, &start.precedes) == 1)
        return true;
    attest_trace_as(OPERATION, "Unable to fetch file offset to seek post %lu", retrieval.cached_events);
    retrieval.status = ATTEST_ERR_SERVICE_FAILED;
    return false;
}

// After a cache that could not be read on: the list is read from the block that holds the event, or from the
// end of the cache. The number that comes with a block's offset is that of the event there, the one that
// comes with the end's is that of the cache's last event: all chunks are full, so they differ in their last
// digits.
bool continue_at_block(ima_retrieval &retrieval, std::uint64_t event, live_start &start)
{
    if (at_ima_cache_find_file_offset(event, &start.precedes, &start.offset) != 1) {
        attest_trace_as(OPERATION, "Unable to find file offset for %lu",
                        retrieval.cached_events + retrieval.start_event);
        retrieval.status = ATTEST_ERR_SERVICE_FAILED;
        return false;
    }
    if (start.precedes % MAX_IMA_EVENTS != 0)
        --start.precedes;
    return true;
}

// Serves what the cache has. True when the live list is to be read from `start` on.
bool serve_from_cache(ima_retrieval &retrieval, live_start &start)
{
    cache_phase phase = at_send_ima_from_cache(retrieval);
    if (phase.result < 0 &&
        (retrieval.status == ATTEST_ERR_NO_MEMORY || retrieval.status == ATTEST_ERR_FLOW_PAUSED)) {
        retrieval.events.clear();
        return false;
    }
    if (phase.last_served != 0 && retrieval.status == ATTEST_OK)
        retrieval.unsent = phase.last_served + 1;
    attest_trace_as(OPERATION, "Read %lu events from the cache %d", retrieval.cached_events, phase.result);
    if (phase.result < 0)
        return continue_at_block(retrieval, phase.last_event, start);
    if (retrieval.event_count != 0 && retrieval.cached_events >= retrieval.event_count) {
        attest_trace_as(OPERATION, "Got all the results from the cache %lu", retrieval.cached_events);
        return false;
    }
    if (!continue_at_tail(retrieval, start))
        return false;
    // A block that could not be opened ends the reading as the end of the cache does.
    if (phase.result == 0 && phase.last_served < start.precedes) {
        start = {};
        return continue_at_block(retrieval, phase.last_served + 1, start);
    }
    return true;
}

std::uint32_t finish(ima_retrieval &retrieval)
{
    if (retrieval.status >= ATTEST_ERR_SERVICE_FAILED) {
        retrieval.events = event_array();
        message_release(*retrieval.reply);
    } else if (retrieval.events.allocated()) {
        retrieval.reply->events = retrieval.events.hand_over();
        retrieval.reply->present |= retrieval.reply->has_events;
    }
    if (!retrieval.stream)
        return retrieval.status;
    if (retrieval.status != ATTEST_ERR_FLOW_PAUSED && !retrieval.not_sent)
        count_source("StreamPlatformImaEventLogs", SOURCE_NODE, retrieval.status);
    return retrieval.status == ATTEST_ERR_FLOW_PAUSED ? ATTEST_ERR_FLOW_PAUSED : ATTEST_ERR_MORE_DATA;
}

} // namespace

std::uint32_t attestation_get_local_ima_event_logs(std::uint64_t start_event, std::uint64_t event_count,
                                                   NodeIMAData *record, remote_attestation_api_client client,
                                                   std::uint32_t request_id, int stream, std::uint64_t unsent)
{
    ima_retrieval retrieval{.start_event = start_event,
                            .event_count = event_count,
                            .reply = record,
                            .client = client,
                            .request_id = request_id,
                            .stream = stream != 0,
                            .unsent = unsent,
                            .status = ATTEST_OK,
                            .events = {},
                            .cached_events = 0,
                            .memory_usage = 0};
    live_start start;
    if (set_up(retrieval) && (at_agent_state.ima_cache_ready == 0 || serve_from_cache(retrieval, start)))
        read_live_list(retrieval, start);
    return finish(retrieval);
}
