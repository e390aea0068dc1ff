// The part of a retrieval that is read from the kernel's list.
#pragma once

#include <cstdint>

#include "ima/retrieval_state.h"

// Where the reading begins.
struct live_start {
    std::uint64_t offset = 0;   // in the list; 0: from its beginning, skipping up to the start event
    std::uint64_t precedes = 0; // the number of the event before that offset
};

// Reads the list from there to its end or to the limit: into the retrieval's events, or sends the complete
// chunks and leaves the last one there. Complete chunks are offered to the cache. The retrieval's status
// tells of a failure.
void read_live_list(ima_retrieval &retrieval, live_start start);
