// What the layer counts (platform/metrics.h). From any thread, but for rpc_collect.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

#include "platform/rpc/methods.h"
#include "platform/rpc/shared.h"

// A call that is over; a null method: one that there is not.
void rpc_count_call(const rpc_method *method, rpc_code outcome);

// How long the agent took for its last word, from the request on.
void rpc_time_answer(const rpc_method &method, std::chrono::steady_clock::time_point asked);

// A peer that was turned away: "full", "handshake" or "operation".
void rpc_count_refusal(std::string_view what);

// Settings' files that were read again: "certificates" or "allow-list".
void rpc_count_reload(std::string_view what, bool taken);

// Sets the gauges of a server, which is `context`; on the loop's thread.
void rpc_collect(void *context);
