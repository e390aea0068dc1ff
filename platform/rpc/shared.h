// What the loop's thread and gRPC's threads share.
//
// Threads. Everything of the public interface, the listener, the connection table and every callback of the
// agent belong to the loop's thread. gRPC's threads open calls, read requests, confirm writes and tell
// cancellations (calls.h); they never run the agent's code and never wait for the loop. What the loop must
// know of it is an event in the inbox.
//
// Locks. rpc_shared::lock guards the peers, the inbox and the allow-list; rpc_client::lock guards a client's
// queue and its calls. The shared lock may be taken while a client's lock is held, not the other way round.
// Operations of a call are started under its client's lock: gRPC completes them on its own threads, never
// inside the start.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/levm.h"
#include "platform/owners.h"
#include "platform/rpc/allow_list.h"
#include "platform/rpc/limits.h"
#include "platform/rpc/refusals.h"

struct rpc_call;
struct rpc_client;
struct rpc_method;
struct rpc_reactor; // gRPC's side of a call (grpc_server.cc)
struct rpc_shared;

struct rpc_message {
    malloc_ptr<std::byte> bytes;
    std::size_t size = 0;
    std::uint64_t cost = 0; // what it counts for in the client's queue
};

struct rpc_event {
    enum class kind { request, call_over, drained };
    kind what;
    std::shared_ptr<rpc_client> client;
    std::shared_ptr<rpc_call> call; // not of `drained`
    std::vector<std::byte> request;
};

// A client as its calls see it.
struct rpc_client {
    std::uint64_t id = 0;
    std::shared_ptr<rpc_shared> shared;
    std::atomic<bool> has_called = false; // TLS is through, if there is any

    std::mutex lock;
    bool gone = false;
    std::uint64_t queued = 0;      // accepted and not yet confirmed written: the sum of the costs
    bool resume_wanted = false;    // a stream was refused, and not told yet that it may go on
    std::uint32_t undelivered = 0; // requests in the inbox, and those held back
    std::uint64_t undelivered_bytes = 0;
    std::deque<rpc_event> held; // requests that wait until earlier answers are taken
    std::vector<std::shared_ptr<rpc_call>> calls;
};

// Status codes of gRPC that the layer uses.
enum class rpc_code : int {
    ok = 0,
    cancelled = 1,
    invalid_argument = 3,
    not_found = 5,
    permission_denied = 7,
    resource_exhausted = 8,
    aborted = 10,
    unimplemented = 12,
    unavailable = 14
};

// One call. The members after `request_id` are guarded by client->lock.
struct rpc_call {
    std::shared_ptr<rpc_client> client;
    const rpc_method *method = nullptr;
    std::uint32_t request_id = 0;

    std::chrono::steady_clock::time_point asked; // when the request was there
    rpc_reactor *reactor = nullptr;              // null when gRPC is done with the call
    std::deque<rpc_message> queue;               // the front is being written while `writing`
    std::uint64_t progress_ms = 0;               // when the client last moved
    bool reading = true;                         // a message of the client is awaited
    bool requested = false;                      // the request is in the inbox or with the agent
    bool delivered = false;                      // the agent has the request
    bool writing = false;
    std::uint64_t writing_since_ms = 0; // the front
    bool ended = false;                 // the agent, or the layer, has said its last word: `code`, `text`
    bool finishing = false;
    bool cancelled = false;
    bool paused = false;        // a message of this stream was refused
    bool paused_second = false; // while another stream of the client was: the agent keeps one
    bool was_paused = false;    // the client cancelled it while the agent kept it
    bool resuming = false;      // told to go on, and nothing sent since
    bool over_told = false;     // the loop has been told that gRPC is done with the call
    rpc_code code = rpc_code::ok;
    std::string text;
    rpc_code outcome = rpc_code::cancelled; // what gRPC was told last
};

struct rpc_shared {
    rpc_limits limits;
    std::string instance;
    levm *manager = nullptr;
    std::uint64_t server_number = 0;

    std::mutex lock;
    bool closed = false;                                                  // events are dropped
    std::unordered_map<std::uint64_t, std::shared_ptr<rpc_client>> peers; // by rpc_peer_key
    std::list<rpc_event> inbox;                                           // an empty one needs no memory
    bool posted = false;
    std::shared_ptr<const rpc_allow_list> allow; // null: every client may ask for everything

    rpc_refusal_log refusals; // has a lock of its own
};

// A peer's address and port as one number.
constexpr std::uint64_t rpc_peer_key(std::uint32_t address, std::uint32_t port)
{
    return std::uint64_t{address} << 16 | port;
}

constexpr remote_attestation_api_endpoint rpc_peer_endpoint(std::uint64_t key)
{
    return {static_cast<std::uint32_t>(key >> 16), static_cast<std::uint32_t>(key & 0xFFFF)};
}

// Puts the event into the inbox and has the loop look at it. From any thread. False, and the event is
// untouched, when there is no memory.
bool rpc_post(rpc_shared &shared, rpc_event &&event) noexcept;

// Milliseconds of a clock that only goes forward.
std::uint64_t rpc_now_ms();
