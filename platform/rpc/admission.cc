// Which calls are taken: whose they are, what they ask for, and whether that client may.
#include <arpa/inet.h>
#include <atomic>
#include <charconv>
#include <utility>

#include "platform/rpc/calls.h"
#include "platform/rpc/methods.h"
#include "platform/rpc/rpc_metrics.h"

namespace {

bool parse_peer(std::string_view peer, std::uint64_t *key)
{
    constexpr std::string_view scheme = "ipv4:";
    const std::size_t colon = peer.rfind(':');
    if (!peer.starts_with(scheme) || colon < scheme.size())
        return false;
    const std::string address(peer.substr(scheme.size(), colon - scheme.size()));
    in_addr parsed{};
    std::uint16_t port = 0;
    const char *end = peer.data() + peer.size();
    const auto [stop, error] = std::from_chars(peer.data() + colon + 1, end, port);
    if (inet_pton(AF_INET, address.c_str(), &parsed) != 1 || error != std::errc{} || stop != end)
        return false;
    *key = rpc_peer_key(ntohl(parsed.s_addr), port);
    return true;
}

std::shared_ptr<rpc_client> client_of_peer(rpc_shared &shared, std::uint64_t key)
{
    const std::lock_guard guard(shared.lock);
    const auto found = shared.peers.find(key);
    return found == shared.peers.end() ? nullptr : found->second;
}

// Health and reflection tell nothing about the node: whoever is served at all may ask.
bool is_permitted(rpc_shared &shared, const rpc_caller &caller, const rpc_method &method)
{
    std::shared_ptr<const rpc_allow_list> allow;
    {
        const std::lock_guard guard(shared.lock);
        allow = shared.allow;
    }
    return allow == nullptr || !rpc_method_is_evidence(method) ||
           rpc_allow_list_permits(*allow, caller, method);
}

// What the client is told names what it is known by, so that its owner can have it allowed.
std::string refuse_operation(rpc_shared &shared, std::uint64_t peer, const rpc_caller &caller,
                             const rpc_method &method)
{
    const std::string operation(rpc_method_name(method));
    rpc_count_call(&method, rpc_code::permission_denied);
    rpc_count_refusal("operation");
    const std::string who = rpc_caller_text(caller);
    rpc_refusal_tell(shared.refusals, shared.limits.log_interval_ms, rpc_refusal::operation, operation,
                     rpc_peer_endpoint(peer), who + " is not allowed to ask for it");
    return who + " is not allowed to ask this node for " + operation;
}

// Never 0, and not again before 2^32 others.
std::uint32_t next_request_id()
{
    static std::atomic<std::uint32_t> last{0};
    std::uint32_t id = 0;
    while (id == 0)
        id = last.fetch_add(1, std::memory_order_relaxed) + 1;
    return id;
}

} // namespace

std::shared_ptr<rpc_call> rpc_call_open(rpc_shared &shared, std::string_view peer, std::string_view path,
                                        const rpc_caller &caller, rpc_reactor *reactor, rpc_code *code,
                                        std::string *text)
{
    std::uint64_t key = 0;
    const std::shared_ptr<rpc_client> client = parse_peer(peer, &key) ? client_of_peer(shared, key) : nullptr;
    if (client != nullptr)
        client->has_called = true;
    const rpc_method *method = rpc_method_find(path);
    if (method == nullptr) {
        rpc_count_call(nullptr, rpc_code::unimplemented);
        *code = rpc_code::unimplemented;
        *text = "no such operation";
        return nullptr;
    }
    if (!is_permitted(shared, caller, *method)) {
        *code = rpc_code::permission_denied;
        *text = refuse_operation(shared, key, caller, *method);
        return nullptr;
    }
    auto call = std::make_shared<rpc_call>();
    call->client = client;
    call->method = method;
    call->request_id = next_request_id();
    call->reactor = reactor;
    call->progress_ms = rpc_now_ms();
    if (client != nullptr) {
        const std::lock_guard guard(client->lock);
        if (!client->gone) {
            client->calls.push_back(call);
            return call;
        }
    }
    *code = rpc_code::unavailable;
    *text = "the connection is closing";
    return nullptr;
}
