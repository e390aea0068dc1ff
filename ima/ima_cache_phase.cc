#include "ima/ima_cache_phase.h"

#include "agent/debug_trace.h"
#include "ima/ima_send.h"
#include "ima_cache/ima_cache.h"

namespace {

constexpr const char *OPERATION = "at_send_ima_from_cache";

// A read cursor of the cache, done at the end of its scope, and the chunk that it decoded.
struct cache_reader {
    ima_cache_cursor cursor = {0, 0, -1};
    owned_message<IMACacheBlock> chunk;

    cache_reader() = default;
    cache_reader(const cache_reader &) = delete;
    cache_reader &operator=(const cache_reader &) = delete;
    ~cache_reader() { at_ima_cache_read_done(&cursor.block, &cursor.offset, &cursor.fd); }

    std::int32_t start(std::uint64_t event)
    {
        return at_ima_cache_read_start(event, chunk.get(), &cursor.block, &cursor.offset, &cursor.fd);
    }
    std::int32_t next()
    {
        return at_ima_cache_read_next(chunk.get(), &cursor.block, &cursor.offset, &cursor.fd);
    }
    event_array take()
    {
        IMACacheBlock taken = chunk.hand_over();
        return event_array(taken.events);
    }
};

// What the phase adds to the working state of the retrieval.
struct progress {
    std::uint64_t usage = 0;  // accounted for
    std::uint64_t chunks = 2; // that the array grows to next
};

std::uint64_t last_of(const event_array &chunk, std::uint64_t otherwise)
{
    return chunk.count() != 0 ? chunk.items()[chunk.count() - 1].event_num : otherwise;
}

bool take_first(ima_retrieval &retrieval, event_array chunk, progress &now)
{
    retrieval.cached_events = chunk.count();
    if (retrieval.stream)
        return send_chunk(retrieval, chunk, send_place::first_cache_chunk, {0, true});
    retrieval.events = std::move(chunk);
    now.usage = peak_resident_set();
    return true;
}

// Appends the chunk to the events that are held. Otherwise the result with which the phase ends.
std::int32_t hold(ima_retrieval &retrieval, event_array &chunk, progress &now)
{
    if (!memory_allows(retrieval, OPERATION, now.usage, now.chunks))
        return 1;
    if (!grow_events(retrieval, OPERATION, now.chunks))
        return -1;
    now.usage += now.chunks * CHUNK_BYTES;
    ++now.chunks;
    if (retrieval.events.room() < chunk.count())
        return -1; // chunks are of one size: this one is not
    retrieval.cached_events += chunk.count();
    retrieval.events.append(chunk);
    return 0;
}

std::int32_t send(ima_retrieval &retrieval, event_array &chunk)
{
    std::uint64_t count = chunk.count();
    if (!send_chunk(retrieval, chunk, send_place::further_cache_chunk, {retrieval.cached_events, true}))
        return -1;
    retrieval.cached_events += count;
    return 0;
}

} // namespace

cache_phase at_send_ima_from_cache(ima_retrieval &retrieval)
{
    const bool goes_on = retrieval.unsent != 0;
    cache_phase phase{.last_event = goes_on ? retrieval.unsent - 1 : retrieval.start_event};
    cache_reader reader;
    if (reader.start(goes_on ? retrieval.unsent : retrieval.start_event) != 1)
        return phase;
    progress now;
    event_array first = reader.take();
    std::uint64_t last = last_of(first, 0);
    first.drop_before(retrieval.unsent); // the chunks were others when the stream began
    if (!take_first(retrieval, std::move(first), now))
        return phase;
    phase.last_served = last;
    while (retrieval.event_count == 0 || retrieval.cached_events < retrieval.event_count) {
        phase.result = reader.next();
        if (phase.result <= 0)
            return phase;
        event_array chunk = reader.take();
        last = last_of(chunk, phase.last_served);
        std::int32_t ended = retrieval.stream ? send(retrieval, chunk) : hold(retrieval, chunk, now);
        if (ended != 0) {
            phase.result = ended;
            return phase;
        }
        phase.last_event = phase.last_served = last;
    }
    phase.result = 1;
    return phase;
}
