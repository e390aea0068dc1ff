// Sending one chunk of a stream, at the three places of a retrieval where there is one to send.
#pragma once

#include <cstdint>

#include "ima/retrieval_state.h"

enum class send_place : std::uint8_t { first_cache_chunk, further_cache_chunk, live_chunk };

// What the place knows of where the list would have to be read again from.
struct send_position {
    // That count against the request's limit: of the cache those sent before, of the live list all that were
    // read, these included.
    std::uint64_t events_counted;
    bool cached; // the live chunk is in the cache now
};

// Sends the events and releases what is in them; the array stays. False: paused or failed, and the
// retrieval's status says which.
bool send_chunk(ima_retrieval &retrieval, event_array &events, send_place place,
                const send_position &position);
