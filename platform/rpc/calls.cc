#include "platform/rpc/calls.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "platform/remote_attestation_api.h"
#include "platform/rpc/grpc_server.h"
#include "platform/rpc/introspection.h"
#include "platform/rpc/methods.h"
#include "platform/rpc/rpc_metrics.h"

namespace {

constexpr std::string_view OUT_OF_MEMORY = "out of memory";

// Tells the loop what a queue that has drained allows: the flow-resume callback of a refused stream, and the
// delivery of requests that were held back. What there is no memory for is told later
// (rpc_client_look_again).
void look_for_room(rpc_client &client)
{
    const std::uint64_t low = client.shared->limits.queue_low_bytes;
    if (client.resume_wanted && client.queued <= low) {
        client.resume_wanted = false;
        const auto paused = std::find_if(client.calls.begin(), client.calls.end(),
                                         [](const auto &call) { return call->paused; });
        if (paused != client.calls.end())
            client.resume_wanted =
                !rpc_post(*client.shared, {rpc_event::kind::drained, (*paused)->client, nullptr, {}});
    }
    if (!client.held.empty() && rpc_client_unread_answers(client) <= low) {
        while (!client.held.empty() && rpc_post(*client.shared, std::move(client.held.front())))
            client.held.pop_front();
    }
}

void drop_front(rpc_call &call)
{
    call.client->queued -= call.queue.front().cost;
    call.queue.pop_front();
}

// Drops what waits; the message that is being written stays until gRPC has confirmed it.
void drop_waiting(rpc_call &call)
{
    while (call.queue.size() > (call.writing ? 1u : 0u)) {
        call.client->queued -= call.queue.back().cost;
        call.queue.pop_back();
    }
}

void finish(rpc_call &call, rpc_code code, const std::string &text)
{
    call.finishing = true;
    call.outcome = code;
    rpc_reactor_finish(call.reactor, code, text);
}

// Starts whatever can be started: gRPC takes one write at a time, and the end after the last.
void pump(rpc_call &call)
{
    if (call.reactor == nullptr || call.writing || call.finishing)
        return;
    if (call.cancelled) {
        finish(call, rpc_code::cancelled, {});
    } else if (!call.queue.empty()) {
        call.writing = true;
        call.writing_since_ms = rpc_now_ms();
        call.finishing = call.ended && call.queue.size() == 1;
        call.outcome = call.finishing ? rpc_code::ok : call.outcome;
        rpc_reactor_write(call.reactor, call.queue.front(), call.finishing);
    } else if (call.ended) {
        finish(call, call.code, call.text);
    }
}

void last_word(rpc_call &call)
{
    call.ended = true;
    call.paused = false;
    if (call.requested)
        rpc_time_answer(*call.method, call.asked);
}

// Without memory the text is left out.
void set_text(rpc_call &call, std::string_view text) noexcept
{
    try {
        call.text = text;
    } catch (const std::bad_alloc &) {
        call.text.clear();
    }
}

void end_locked(rpc_call &call, rpc_code code, std::string_view text)
{
    if (call.ended)
        return;
    last_word(call);
    call.code = code;
    set_text(call, text);
    drop_waiting(call);
    pump(call);
    look_for_room(*call.client);
}

void cancel_locked(rpc_call &call)
{
    call.cancelled = true;
    call.was_paused = (std::exchange(call.paused, false) && !call.paused_second) || call.was_paused;
    drop_waiting(call);
    pump(call);
    look_for_room(*call.client);
}

std::uint64_t cost_of(const rpc_call &call, std::uint64_t size)
{
    return size + call.client->shared->limits.message_overhead_bytes;
}

// Takes over the message, whose cost counts already. False without memory: the call has ended then.
bool queue_locked(rpc_call &call, rpc_message message, bool last)
{
    if (call.queue.empty())
        call.progress_ms = rpc_now_ms();
    try {
        call.queue.push_back(std::move(message));
    } catch (const std::bad_alloc &) {
        call.client->queued -= message.cost;
        end_locked(call, rpc_code::resource_exhausted, OUT_OF_MEMORY);
        return false;
    }
    if (last)
        last_word(call);
    pump(call);
    return true;
}

// Answers of the layer itself are a few bytes, or the contract's description once asked for; they are
// counted, not refused.
void answer_locked(rpc_call &call, const std::string &bytes, bool last)
{
    rpc_message message{malloc_ptr<std::byte>(static_cast<std::byte *>(std::malloc(bytes.size() + 1))),
                        bytes.size(), cost_of(call, bytes.size())};
    if (message.bytes == nullptr) {
        end_locked(call, rpc_code::resource_exhausted, OUT_OF_MEMORY);
        return;
    }
    bytes.copy(reinterpret_cast<char *>(message.bytes.get()), bytes.size());
    call.client->queued += message.cost;
    queue_locked(call, std::move(message), last);
}

bool post_request(const std::shared_ptr<rpc_call> &call, std::span<const std::byte> bytes) noexcept
{
    try {
        return rpc_post(*call->client->shared,
                        {rpc_event::kind::request, call->client, call, {bytes.begin(), bytes.end()}});
    } catch (const std::bad_alloc &) {
        return false;
    }
}

// Of one client the inbox holds at most twice the calls that it may have, and two requests of the largest
// size: who opens calls and cancels them at once, faster than the loop looks, is refused.
void request_locked(const std::shared_ptr<rpc_call> &call, std::span<const std::byte> bytes)
{
    rpc_client &client = *call->client;
    const rpc_limits &limits = client.shared->limits;
    if (client.undelivered >= 2 * limits.calls_per_connection ||
        client.undelivered_bytes + bytes.size() > 2 * std::uint64_t{limits.request_bytes}) {
        end_locked(*call, rpc_code::resource_exhausted, "too many calls of this client wait");
        return;
    }
    // What counts the request comes first: on its own thread the loop counts it off.
    ++client.undelivered;
    client.undelivered_bytes += bytes.size();
    call->requested = true;
    call->asked = std::chrono::steady_clock::now();
    if (post_request(call, bytes))
        return;
    call->requested = false;
    --client.undelivered;
    client.undelivered_bytes -= bytes.size();
    end_locked(*call, rpc_code::resource_exhausted, OUT_OF_MEMORY);
}

void health_locked(rpc_call &call, std::span<const std::byte> bytes, bool watch)
{
    const rpc_health health = rpc_health_of(bytes, call.client->shared->instance);
    if (watch)
        answer_locked(call, rpc_health_answer(health), false);
    else if (health == rpc_health::serving)
        answer_locked(call, rpc_health_answer(health), true);
    else
        end_locked(call, rpc_code::not_found, "no such service");
}

void tell_over(const std::shared_ptr<rpc_call> &call)
{
    call->over_told = rpc_post(*call->client->shared, {rpc_event::kind::call_over, call->client, call, {}});
}

} // namespace

void rpc_call_read(const std::shared_ptr<rpc_call> &call, bool ok, std::span<const std::byte> bytes)
{
    const rpc_method_kind kind = call->method->kind;
    const std::string reflected =
        kind == rpc_method_kind::reflection && ok ? rpc_reflection_answer(bytes) : std::string();
    const std::lock_guard guard(call->client->lock);
    call->reading = false;
    call->progress_ms = rpc_now_ms();
    if (call->cancelled || call->ended)
        return;
    if (!ok && kind == rpc_method_kind::reflection)
        end_locked(*call, rpc_code::ok, {});
    else if (!ok)
        end_locked(*call, rpc_code::invalid_argument, "the call has no request");
    else if (kind == rpc_method_kind::reflection)
        answer_locked(*call, reflected, false);
    else if (rpc_method_is_evidence(*call->method))
        request_locked(call, bytes);
    else
        health_locked(*call, bytes, kind == rpc_method_kind::health_watch);
}

void rpc_call_written(rpc_call &call, bool ok)
{
    const std::lock_guard guard(call.client->lock);
    call.writing = false;
    call.progress_ms = rpc_now_ms();
    drop_front(call);
    if (!ok) {
        call.outcome = rpc_code::cancelled;
        cancel_locked(call);
    }
    pump(call);
    look_for_room(*call.client);
    const bool next_question = call.method->kind == rpc_method_kind::reflection && call.queue.empty() &&
                               !call.ended && !call.cancelled && call.reactor != nullptr;
    if (next_question) {
        call.reading = true;
        rpc_reactor_read(call.reactor);
    }
}

void rpc_call_cancelled(rpc_call &call)
{
    const std::lock_guard guard(call.client->lock);
    cancel_locked(call);
}

void rpc_call_done(const std::shared_ptr<rpc_call> &call)
{
    rpc_client &client = *call->client;
    const std::lock_guard guard(client.lock);
    rpc_count_call(call->method, call->outcome);
    call->reactor = nullptr;
    call->writing = false;
    call->cancelled = true;
    drop_waiting(*call);
    if (call->requested && !client.gone)
        tell_over(call);
    else
        std::erase(client.calls, call);
    look_for_room(client);
}

void rpc_client_look_again(rpc_client &client)
{
    const std::lock_guard guard(client.lock);
    for (const auto &call : client.calls) {
        if (call->reactor == nullptr && !call->over_told)
            tell_over(call);
    }
    look_for_room(client);
}

std::shared_ptr<rpc_call> rpc_call_find(rpc_client &client, std::uint32_t request_id)
{
    const std::lock_guard guard(client.lock);
    const auto found = std::find_if(client.calls.begin(), client.calls.end(), [request_id](const auto &call) {
        return call->request_id == request_id;
    });
    return found == client.calls.end() ? nullptr : *found;
}

std::int32_t rpc_call_reserve(rpc_call &call, std::uint64_t size, bool last, std::uint64_t *cost)
{
    rpc_client &client = *call.client;
    const rpc_limits &limits = client.shared->limits;
    const std::lock_guard guard(client.lock);
    call.resuming = false;
    if (call.cancelled || call.ended)
        return REMOTE_ATTESTATION_API_NO_CLIENT;
    *cost = cost_of(call, size);
    const bool full =
        client.queued > limits.queue_low_bytes && client.queued + *cost > limits.queue_high_bytes;
    if (!full || (last && size <= limits.end_allowance_bytes)) {
        client.queued += *cost;
        return 0;
    }
    // Nobody sends the answer of a one-shot call a second time.
    if (call.method->kind == rpc_method_kind::answer) {
        end_locked(call, rpc_code::resource_exhausted,
                   "the answer does not fit behind what this client has not taken yet");
        return REMOTE_ATTESTATION_API_FLOW_CLOSED;
    }
    if (!call.paused)
        call.paused_second = std::any_of(client.calls.begin(), client.calls.end(),
                                         [](const auto &other) { return other->paused; });
    call.paused = true;
    client.resume_wanted = true;
    return REMOTE_ATTESTATION_API_FLOW_CLOSED;
}

void rpc_call_give_room_back(rpc_call &call, std::uint64_t cost)
{
    const std::lock_guard guard(call.client->lock);
    call.client->queued -= cost;
    look_for_room(*call.client);
}

std::int32_t rpc_call_send(rpc_call &call, rpc_message message, bool last)
{
    const std::lock_guard guard(call.client->lock);
    if (call.cancelled) {
        call.client->queued -= message.cost;
        look_for_room(*call.client);
        return REMOTE_ATTESTATION_API_NO_CLIENT;
    }
    return queue_locked(call, std::move(message), last) ? 0 : REMOTE_ATTESTATION_API_NOT_SENT;
}

void rpc_call_end(rpc_call &call, rpc_code code, std::string_view text)
{
    const std::lock_guard guard(call.client->lock);
    end_locked(call, code, text);
}

bool rpc_call_is_outstanding(rpc_call &call)
{
    const std::lock_guard guard(call.client->lock);
    return call.delivered && !call.ended;
}
