#include "ima/ima_live_phase.h"

#include "agent/agent_state.h"
#include "agent/debug_trace.h"
#include "agent/metrics.h"
#include "agent/system_messages.h"
#include "ima/deduplication.h"
#include "ima/ima_events_skip.h"
#include "ima/ima_log.h"
#include "ima/ima_record_reader.h"
#include "ima/ima_send.h"
#include "ima_cache/ima_cache.h"

namespace {

constexpr const char *OPERATION = "attestation_get_local_ima_event_logs";

struct live_state {
    ima_log log;
    std::uint64_t precedes = 0; // the number of the event before the first one read
    std::uint64_t events_read = 0;
    std::uint64_t chunk_offset = 0; // where the current chunk begins in the list
    std::uint64_t chunk_first = 0;  // its first event's number
    bool caching = true;            // complete chunks are offered to the cache
    std::uint64_t reserved = 0;     // events that the growth so far was for
    std::uint64_t usage = 0;        // accounted for
    std::uint64_t chunks = 1;       // that the array grows to next
};

bool is_cached(const live_state &live)
{
    return live.caching && at_agent_state.ima_cache_ready != 0;
}

// Goes to where the reading begins. False: there is nothing to report from there.
bool go_to_start(const ima_retrieval &retrieval, const live_start &start, live_state &live)
{
    const bool seeks = start.offset != 0;
    live.precedes = seeks ? start.precedes : 0;
    bool there = !seeks || ima_events_seek(live.log, start.offset, start.precedes);
    // From an offset all is new that has not been sent.
    std::uint64_t skipped_to = seeks ? 0 : retrieval.start_event;
    if (retrieval.unsent != 0)
        skipped_to = retrieval.unsent - 1;
    if (there && skipped_to > live.precedes) {
        std::uint64_t between = skipped_to - live.precedes;
        there = ima_events_skip(live.log, between);
        live.precedes += between;
    }
    if (!there)
        attest_trace_as(OPERATION, "No events to report based on start event filter %lu", live.precedes);
    return there;
}

// Room for one more chunk: the array grows, or the chunk that is held makes place by being sent.
bool make_room(ima_retrieval &retrieval, live_state &live)
{
    if (retrieval.events.count() < live.reserved)
        return true;
    if (!memory_allows(retrieval, OPERATION, live.usage, live.chunks))
        return false;
    if (live.reserved == 0 || !retrieval.stream) {
        if (!grow_events(retrieval, OPERATION, live.chunks))
            return false;
        live.reserved += MAX_IMA_EVENTS;
        ++live.chunks;
        live.usage += live.chunks * CHUNK_BYTES;
        return true;
    }
    return send_chunk(retrieval, retrieval.events, send_place::live_chunk,
                      {live.events_read, is_cached(live)});
}

enum class chunk_outcome : std::uint8_t { complete, end_of_log, failed };

// Reads up to a chunk of records behind the events that are held.
chunk_outcome at_read_local_ima_chunk_from_file(ima_retrieval &retrieval, live_state &live)
{
    event_array &events = retrieval.events;
    for (std::uint64_t i = 0; i < MAX_IMA_EVENTS && events.room() != 0; ++i) {
        IMA_EVENT &event = events.next();
        switch (at_read_ima_record(live.log, i, &event, &retrieval.status)) {
        case ima_record_outcome::end_of_log:
            return chunk_outcome::end_of_log;
        case ima_record_outcome::failed:
            message_release(event);
            return chunk_outcome::failed;
        case ima_record_outcome::read:
            break;
        }
        event.event_num = live.precedes + ++live.events_read;
        event.present |= event.has_event_num;
        events.take_next();
        mark_duplicate(&event, i);
    }
    return chunk_outcome::complete;
}

// Only a chunk that fills the array by itself is one of the cache's.
void offer_to_cache(const ima_retrieval &retrieval, live_state &live)
{
    if (!is_cached(live) || retrieval.events.count() != MAX_IMA_EVENTS)
        return;
    std::uint64_t behind = ima_log_position(live.log);
    std::int32_t result =
        at_ima_cache_add(retrieval.events.items(), MAX_IMA_EVENTS, live.chunk_offset, behind);
    if (result != 1) {
        attest_trace_as(OPERATION, "Failed to add chunk starting at %lu to cache %d ", live.chunk_first,
                        result);
        live.caching = result == 0; // a chunk that the cache has already stops nothing
    }
    live.chunk_first += MAX_IMA_EVENTS;
    live.chunk_offset = behind;
}

} // namespace

void read_live_list(ima_retrieval &retrieval, live_start start)
{
    live_state live;
    if (ima_log_open(live.log, ima_log_name) != 0) {
        raise_system_message(msg_rec_attestation_agent_event_log_not_found, "Error reading\n");
        retrieval.status = ATTEST_ERR_BOOT_LOG_READ;
        return;
    }
    if (!go_to_start(retrieval, start, live)) {
        retrieval.events.clear();
        return;
    }
    live.chunk_first = live.precedes + 1;
    live.chunk_offset = ima_log_position(live.log);
    live.chunks = retrieval.events.count() / MAX_IMA_EVENTS + 1;
    live.usage = retrieval.memory_usage;
    for (;;) {
        if (!make_room(retrieval, live))
            return;
        chunk_outcome outcome = at_read_local_ima_chunk_from_file(retrieval, live);
        if (outcome == chunk_outcome::failed)
            return;
        if (outcome == chunk_outcome::complete)
            offer_to_cache(retrieval, live);
        if (outcome == chunk_outcome::end_of_log)
            note_list_length(live.precedes + live.events_read);
        if (outcome == chunk_outcome::end_of_log ||
            (retrieval.event_count != 0 && live.events_read >= retrieval.event_count))
            return;
    }
}
