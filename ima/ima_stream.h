// The record of the one stream that waits for its client: where to go on when the client's flow opens.
#pragma once

#include <cstdint>

#include "platform/remote_attestation_api.h"

// The user context of a client whose stream is paused.
inline constexpr std::uint64_t STREAM_PAUSED_MARK = 0xabcdabcd;

// Records a stream of `client` that goes on at `start_event` with `event_count` events (0: no limit).
// `unsent` is the first event that the client does not have yet; 0: it has none. 1; or 0 when a stream is
// recorded already, which stays.
std::int32_t at_ima_stream_pause(remote_attestation_api_client client, std::uint32_t request_id,
                                 std::uint64_t start_event, std::uint64_t event_count,
                                 std::uint64_t unsent = 0);

// Takes the stream of `client` back and empties the record. 1; or 0, with the outputs and the record
// unchanged, when it holds none of this client or an output is null; but `unsent` may be.
std::int32_t at_ima_stream_resume(remote_attestation_api_client client, std::uint32_t *request_id,
                                  std::uint64_t *start_event, std::uint64_t *event_count,
                                  std::uint64_t *unsent = nullptr);
