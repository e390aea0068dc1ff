// A call from both sides: what gRPC's threads tell, and what the loop's thread sends. The send queue lives
// here.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/rpc/shared.h"

// ---- gRPC's threads ----

// Takes note of a new call; `caller` is who the client is by its certificate. Null, with *code and *text,
// when it must be refused.
std::shared_ptr<rpc_call> rpc_call_open(rpc_shared &shared, std::string_view peer, std::string_view path,
                                        const rpc_caller &caller, rpc_reactor *reactor, rpc_code *code,
                                        std::string *text);
// A message of the client, or `ok` false: there is none, or none any more.
void rpc_call_read(const std::shared_ptr<rpc_call> &call, bool ok, std::span<const std::byte> bytes);
void rpc_call_written(rpc_call &call, bool ok);
void rpc_call_cancelled(rpc_call &call);
// gRPC has forgotten the call; its reactor is not touched any more.
void rpc_call_done(const std::shared_ptr<rpc_call> &call);

// ---- the loop's thread, and inside ----

// The client's call with this request id, or null.
std::shared_ptr<rpc_call> rpc_call_find(rpc_client &client, std::uint32_t request_id);

// Reserves room in the client's queue for a message of `size` bytes: 0 and its cost, or why it is not taken.
std::int32_t rpc_call_reserve(rpc_call &call, std::uint64_t size, bool last, std::uint64_t *cost);
// Queues a message for which room was reserved. 0; or, with the room given back,
// REMOTE_ATTESTATION_API_NO_CLIENT or, without memory, REMOTE_ATTESTATION_API_NOT_SENT with the call ended.
std::int32_t rpc_call_send(rpc_call &call, rpc_message message, bool last);
void rpc_call_give_room_back(rpc_call &call, std::uint64_t cost);

// Ends the call with a status, after the message that is being written now; what waits behind it is dropped.
// Needs no memory, but for a text of some length.
void rpc_call_end(rpc_call &call, rpc_code code, std::string_view text);

// Whether the agent still owes the call something: it has the request and has not sent its last message.
bool rpc_call_is_outstanding(rpc_call &call);

// ---- a client's calls, on the loop's thread ----

// Bytes of answers that are complete and that the client has not taken. Under the client's lock.
std::uint64_t rpc_client_unread_answers(const rpc_client &client);
// Whether the agent may have the request now. Not when the client has given it up; and not yet, and then it
// comes again, while the client has not taken the answers before: so answers of any size can be asked for one
// after the other, or all at once, and never more than one large one is kept. Nor while the queues of all
// clients together hold `too_much` for it.
bool rpc_client_take_delivery(rpc_client &client, const rpc_event &request, bool too_much);

// Tells the loop what there was no memory for when it was due.
void rpc_client_look_again(rpc_client &client);
// Whether a call waits for the client for longer than the limit. `moved`: bytes went out since the last time.
bool rpc_client_is_stalled(rpc_client &client, std::uint64_t now_ms, bool moved);
// Before the flow-resume callback: marks the paused streams as resuming; whether there is any.
bool rpc_client_begin_resume(rpc_client &client);
// After it: streams that were not taken up again are ended, for nobody will.
void rpc_client_end_resume(rpc_client &client);
// Whether a stream of the client waits for the flow-resume callback, and this call never did.
bool rpc_client_paused_another(rpc_client &client, const rpc_call &call);
// Whether a stream of the client was cancelled while it was paused and its end has not been told: it counts
// as told from here on. A request that comes before that end would find the agent's one place for a paused
// stream taken.
bool rpc_client_gave_up_pause(rpc_client &client);
// Removes a call that is over.
void rpc_client_forget_call(rpc_client &client, const rpc_call *call);
// The connection is gone: drops what is queued, cancels and forgets every call. Whether one was outstanding.
bool rpc_client_shut(rpc_client &client);
