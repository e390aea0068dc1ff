// Every bound of the RPC layer, in one place, each with its reason. The defaults are what the daemon runs
// with; there is no setting for them. Tests set smaller ones before they activate a server.
#pragma once

#include <cstdint>

struct remote_attestation_api_server;

struct rpc_limits {
    // A node is asked by a handful of verifiers. With two descriptors each this stays far below the usual
    // 1024.
    std::uint32_t connections = 256;
    // There are six operations, answered one at a time; more calls of one client only wait. Announced as
    // HTTP/2's SETTINGS_MAX_CONCURRENT_STREAMS.
    std::uint32_t calls_per_connection = 16;
    // The largest useful request names 255 PCRs and a 64-byte nonce, about 600 bytes.
    std::uint32_t request_bytes = 64 * 1024;
    // Header fields of a call: what HTTP/2 servers commonly take.
    std::uint32_t metadata_bytes = 8 * 1024;

    // A message that would take a client's queue over the high mark is refused, unless the queue is at the
    // low mark or below: a single message may be larger than both. At the low mark a refused stream is
    // resumed. The distance is about 15 messages of 1000 events, so that a slow client costs few pauses and
    // not one a message.
    std::uint64_t queue_high_bytes = std::uint64_t{8} << 20;
    std::uint64_t queue_low_bytes = std::uint64_t{2} << 20;
    // While all queues together are larger, requests for a whole log wait: such answers have no other bound
    // than their number, one a client. Other answers, and messages of streams, are refused then from
    // large_message_bytes on. Room for 60 streams that nobody takes.
    std::uint64_t all_queues_bytes = std::uint64_t{512} << 20;
    // What a queued message costs besides its bytes, so that empty messages are bounded too.
    std::uint64_t message_overhead_bytes = 256;
    // A message that ends its call passes a full queue when it is no larger: small answers beside a busy
    // stream, and the end of a stream, which nobody would send again. At most one a call, so the queue stays
    // bounded.
    std::uint64_t end_allowance_bytes = std::uint64_t{64} << 10;

    // From the accepted connection to the client's first HTTP/2 settings, the TLS handshake included.
    std::uint64_t handshake_ms = 10'000;
    // A connection without a call: long enough for a verifier that polls every few minutes.
    std::uint64_t idle_ms = 600'000;
    // A call whose client owes the next step (its request, or taking what was sent) and does not move.
    std::uint64_t stall_ms = 60'000;
    // Messages from this size on may take longer than stall_ms in whole: while the client's machine
    // acknowledges bytes they have stall_ms more for each of these sizes. None needs more than 17 kB/s.
    std::uint64_t large_message_bytes = std::uint64_t{1} << 20;
    // When the queues of all clients together have become so much smaller, freed memory goes back to the
    // kernel. Far more than a usual answer, which would cost its page faults again.
    std::uint64_t kept_bytes = std::uint64_t{64} << 20;
    // How often stalled calls and large queues are looked for, while there are connections.
    std::uint64_t sweep_ms = 1'000;
    // Accepting rests this long when the process has run out of descriptors or memory.
    std::uint64_t accept_pause_ms = 100;
    // Operator lines that a peer can provoke: one of a kind in this time, with the number held back.
    std::uint64_t log_interval_ms = 60'000;

    // After new certificates: how long calls of connections with the former ones may go on. A whole list
    // takes minutes at most.
    std::uint64_t retire_ms = 600'000;

    // What gRPC may allocate for reading and for calls; 16 calls on each of 256 connections need about 80 MB.
    // After new certificates the former server has as much until it has retired.
    std::uint64_t grpc_memory_bytes = std::uint64_t{128} << 20;
};

// Replaces the limits of a server that is not active.
void rpc_server_set_limits(remote_attestation_api_server *server, const rpc_limits &limits);

// The port that an active server listens on, for a test that activated it with port 0 (any free); else 0.
std::uint32_t rpc_server_port(const remote_attestation_api_server *server);
