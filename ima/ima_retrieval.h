// The node's own IMA list, from a start event on.
#pragma once

#include <cstdint>

#include "platform/messages.h"
#include "platform/remote_attestation_api.h"

// With `stream` 0 fills `record` with the events after `start_event`: ATTEST_OK, or a status and an empty
// record (ATTEST_ERR_NO_MEMORY: what was read until then). With `stream` 1 sends them to the client chunk by
// chunk: ATTEST_ERR_MORE_DATA leaves the last chunk in `record` for the caller to send;
// ATTEST_ERR_FLOW_PAUSED: the stream was paused. The record is the caller's to release in every case.
//
// `event_count` (0: all) is a wish: whole chunks come, and what the cache has and what is read from the
// kernel's list are counted each for itself. A stream that was paused while it read the list has counted the
// refused chunk.
//
// `unsent` goes on with a stream: the events from this one on come, wherever they are found. 0: a new
// request.
std::uint32_t attestation_get_local_ima_event_logs(std::uint64_t start_event, std::uint64_t event_count,
                                                   NodeIMAData *record, remote_attestation_api_client client,
                                                   std::uint32_t request_id, int stream,
                                                   std::uint64_t unsent = 0);
