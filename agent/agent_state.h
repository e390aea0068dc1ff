// What the process remembers between requests. Filled at start-up, then used on the event-loop thread only,
// so nothing is locked.
#pragma once

#include <cstdint>

#include "platform/trust_anchor_client.h"

// The one stream that may be paused in the process; all zero when none is.
struct at_paused_stream_slot {
    std::int32_t paused; // 1 while a stream is recorded
    std::uint64_t client;
    std::uint32_t request_id;
    std::uint64_t start_event; // where the resumed retrieval starts
    std::uint64_t event_count; // how many events it is asked for; 0: no limit
    std::uint64_t unsent;      // the first event that the client does not have yet; 0: it has none
};

struct at_agent_state_block {
    std::uint64_t device_info;
    std::uint64_t device_handle; // what every login goes to
    kov_login_context login_context;
    kovc_context *client_context; // null until the trust anchor is initialised; lives as long as the process
    std::uint32_t capability_pcr_read;
    std::uint32_t capability_pcr_quote;
    std::uint32_t ima_cache_ready; // 1 when at_ima_cache_init succeeded
    at_paused_stream_slot at_paused_stream;
    struct shmht_handle *at_ima_ht; // the table of measurements; null until it could be created
};

extern at_agent_state_block at_agent_state;

// The process's soft limit on its data segment in bytes, as it was at start-up.
extern std::uint64_t at_soft_data_limit;
