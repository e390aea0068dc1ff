// The calls of one client together, as the loop sees them, and the inbox.
#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "platform/rpc/calls.h"
#include "platform/rpc/methods.h"
#include "platform/rpc/server.h"

namespace {

// A call that waits for the agent or that gRPC is done with, or a quiet watch or reflection stream, does not
// wait for its client.
bool waits_for_client(const rpc_call &call)
{
    const bool owes_request = call.reading && call.method->kind != rpc_method_kind::reflection;
    return call.reactor != nullptr && (owes_request || call.writing || call.finishing);
}

// False without memory.
bool hold(rpc_client &client, const rpc_event &request)
{
    try {
        client.held.push_back(request);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

// What the client's machine acknowledged may be other answers on the connection: a large message has stall_ms
// more for each large_message_bytes, and an end.
bool may_still_move(const rpc_call &call, std::uint64_t now_ms)
{
    if (call.queue.empty())
        return false;
    const rpc_limits &limits = call.client->shared->limits;
    const std::uint64_t parts = call.queue.front().size / limits.large_message_bytes;
    return parts != 0 && now_ms <= call.writing_since_ms + limits.stall_ms * parts;
}

} // namespace

std::uint64_t rpc_now_ms()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

bool rpc_post(rpc_shared &shared, rpc_event &&event) noexcept
{
    const std::lock_guard guard(shared.lock);
    if (shared.closed)
        return true;
    try {
        shared.inbox.push_back(std::move(event));
    } catch (const std::bad_alloc &) {
        return false;
    }
    // The number, not a pointer: the loop may come to it when the server is gone.
    if (!std::exchange(shared.posted, true))
        levm_post(shared.manager, rpc_server_read_inbox, reinterpret_cast<void *>(shared.server_number));
    return true;
}

std::uint64_t rpc_client_unread_answers(const rpc_client &client)
{
    std::uint64_t unread = 0;
    for (const auto &call : client.calls) {
        for (const rpc_message &message : call->queue)
            unread += call->ended ? message.cost : 0;
    }
    return unread;
}

bool rpc_client_take_delivery(rpc_client &client, const rpc_event &request, bool too_much)
{
    rpc_call &call = *request.call;
    const std::lock_guard guard(client.lock);
    const bool wanted = !call.cancelled && !call.ended;
    // One that cannot be held is delivered early: its answer may then find no room.
    if (wanted && (too_much || rpc_client_unread_answers(client) > client.shared->limits.queue_low_bytes) &&
        hold(client, request))
        return false;
    --client.undelivered;
    client.undelivered_bytes -= request.request.size();
    call.delivered = wanted;
    return wanted;
}

bool rpc_client_is_stalled(rpc_client &client, std::uint64_t now_ms, bool moved)
{
    const std::lock_guard guard(client.lock);
    bool stalled = false;
    for (const auto &call : client.calls) {
        if (!waits_for_client(*call) || (moved && may_still_move(*call, now_ms)))
            call->progress_ms = now_ms;
        stalled = stalled || now_ms > call->progress_ms + client.shared->limits.stall_ms;
    }
    return stalled;
}

bool rpc_client_begin_resume(rpc_client &client)
{
    const std::lock_guard guard(client.lock);
    bool any = false;
    for (const auto &call : client.calls) {
        call->resuming = std::exchange(call->paused, false);
        any = any || call->resuming;
    }
    return any;
}

void rpc_client_end_resume(rpc_client &client)
{
    std::shared_ptr<rpc_call> abandoned;
    do {
        abandoned.reset();
        {
            const std::lock_guard guard(client.lock);
            const auto found = std::find_if(client.calls.begin(), client.calls.end(),
                                            [](const auto &call) { return call->resuming; });
            if (found != client.calls.end()) {
                abandoned = *found;
                abandoned->resuming = false;
            }
        }
        if (abandoned != nullptr)
            rpc_call_end(*abandoned, rpc_code::aborted,
                         "the stream was given up, for another one waited; ask again");
    } while (abandoned != nullptr);
}

bool rpc_client_paused_another(rpc_client &client, const rpc_call &call)
{
    const std::lock_guard guard(client.lock);
    return !call.was_paused && std::any_of(client.calls.begin(), client.calls.end(),
                                           [](const auto &other) { return other->paused; });
}

bool rpc_client_gave_up_pause(rpc_client &client)
{
    const std::lock_guard guard(client.lock);
    bool any = false;
    for (const auto &call : client.calls) {
        const bool untold = call->was_paused && call->delivered && !call->ended;
        call->delivered = call->delivered && !untold;
        any = any || untold;
    }
    return any;
}

void rpc_client_forget_call(rpc_client &client, const rpc_call *call)
{
    const std::lock_guard guard(client.lock);
    std::erase_if(client.calls, [call](const auto &other) { return other.get() == call; });
}

bool rpc_client_shut(rpc_client &client)
{
    std::vector<std::shared_ptr<rpc_call>> calls;
    {
        const std::lock_guard guard(client.lock);
        client.gone = true;
        calls.swap(client.calls);
        client.held.clear();
    }
    bool outstanding = false;
    for (const auto &call : calls) {
        outstanding = rpc_call_is_outstanding(*call) || outstanding;
        rpc_call_cancelled(*call);
    }
    return outstanding;
}
