// What one retrieval of the list works with, from step to step.
#pragma once

#include <cstdint>

#include "agent/status.h"
#include "ima/event_array.h"
#include "platform/messages.h"
#include "platform/remote_attestation_api.h"

struct ima_retrieval {
    // Of the request.
    const std::uint64_t start_event;
    const std::uint64_t event_count; // 0: no limit
    NodeIMAData *const reply;
    const remote_attestation_api_client client;
    const std::uint32_t request_id;
    const bool stream;

    std::uint64_t unsent; // the first event that the client does not have; 0: by the start event
    std::uint32_t status = ATTEST_OK;
    bool not_sent = false;           // the client did not take a chunk, which is no failure of the source
    event_array events;              // held: for the answer, or for the stream's next message
    std::uint64_t cached_events = 0; // read from the cache
    std::uint64_t memory_usage = 0;  // the process's peak resident set when the retrieval began, as reported
};

// Whether the array may grow to `chunks` chunks when `usage` is accounted for. Otherwise, traced under the
// operation's name, the retrieval's status says so.
bool memory_allows(ima_retrieval &retrieval, const char *operation, std::uint64_t usage,
                   std::uint64_t chunks);

// Grows the array to `chunks` chunks; a failure is traced and the retrieval's status says so.
bool grow_events(ima_retrieval &retrieval, const char *operation, std::uint64_t chunks);

// The process's peak resident set, in the kernel's unit (KiB).
std::uint64_t peak_resident_set();
