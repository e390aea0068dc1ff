// The part of a retrieval that the cache has.
#pragma once

#include <cstdint>

#include "ima/retrieval_state.h"

struct cache_phase {
    std::int32_t result = -1;      // 1, stopped by the limit or by the memory; 0, the end of the cache; -1
    std::uint64_t last_event = 0;  // of the chunk that was taken last; without one, the one before what comes
    std::uint64_t last_served = 0; // of all chunks, also of the first one
};

// Takes the chunks from the one that holds the start event, or the first that the client does not have, on:
// into the retrieval's events, or sends them.
cache_phase at_send_ima_from_cache(ima_retrieval &retrieval);
