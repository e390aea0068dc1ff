// Operator lines that a peer can provoke, kept from filling the journal; and who was refused.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/remote_attestation_api.h"

// One line of a kind in an interval.
struct rpc_log_limit {
    std::uint64_t next_ms = 0;
    std::uint32_t held_back = 0;
};

// Whether a line may go out; *held_back is then how many did not since the last one.
bool rpc_log_allowed(rpc_log_limit &limit, std::uint64_t interval_ms, std::uint32_t *held_back);

enum class rpc_refusal : std::uint8_t { connection, operation };

// One line in an interval for each refused address, so that a noisy one does not hide another; for as many
// addresses as a node has neighbours. All others share one line, with their number.
struct rpc_refusal_log {
    struct peer {
        std::uint32_t address;
        rpc_refusal what;
        rpc_log_limit limit;
    };
    std::mutex lock;
    std::array<peer, 64> peers{}; // free where limit.next_ms has passed
    rpc_log_limit others;
};

// Tells the operator that a peer was refused: "WHAT from a.b.c.d:port refused: WHY". From any thread.
void rpc_refusal_tell(rpc_refusal_log &log, std::uint64_t interval_ms, rpc_refusal kind,
                      const std::string &what, const remote_attestation_api_endpoint &peer,
                      const std::string &why);

// ---- why TLS refused somebody, in gRPC's words ----
//
// gRPC says it in its log and not whom it was about; the connection ends right after. What it says is kept
// for the loop's thread, which sees a connection end that never had a call.

// From gRPC's threads: the line, if it is of a handshake that failed; false for any other.
bool rpc_handshake_failed(const char *line);
// The oldest of the reasons not taken yet that is from the last seconds, or "".
std::string rpc_handshake_reason();
