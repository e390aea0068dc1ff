#include "platform/rpc/refusals.h"

#include <algorithm>
#include <deque>
#include <new>
#include <string_view>
#include <syslog.h>
#include <utility>

#include "platform/operator_log.h"
#include "platform/rpc/settings.h"
#include "platform/rpc/shared.h"

namespace {

// gRPC shuts a connection down in the same breath; the loop may be busy with an operation that takes its
// time.
constexpr std::uint64_t REASON_LIFE_MS = 30'000;
constexpr std::size_t MOST_REASONS = 64;

struct handshake_reason {
    std::uint64_t at_ms;
    std::string text;
};
std::mutex reasons_lock;
std::deque<handshake_reason> reasons;

// "...: error:0A0000C7:SSL routines::peer did not return a certificate." without all that is not the reason.
std::string reason_of(std::string_view line)
{
    constexpr std::string_view mark = "::";
    const std::size_t at = line.rfind(mark);
    if (at != std::string_view::npos)
        line.remove_prefix(at + mark.size());
    while (!line.empty() && (line.back() == '.' || line.back() == '\n'))
        line.remove_suffix(1);
    return std::string(line.substr(0, 200));
}

// The address's own limit; null when as many others are in theirs.
rpc_log_limit *limit_of(rpc_refusal_log &log, std::uint32_t address, rpc_refusal kind)
{
    auto *found = std::find_if(log.peers.begin(), log.peers.end(), [&](const rpc_refusal_log::peer &peer) {
        return peer.address == address && peer.what == kind && peer.limit.next_ms != 0;
    });
    const std::uint64_t now = rpc_now_ms();
    if (found == log.peers.end()) {
        found = std::find_if(log.peers.begin(), log.peers.end(),
                             [now](const rpc_refusal_log::peer &peer) { return peer.limit.next_ms <= now; });
        if (found != log.peers.end())
            *found = {address, kind, {}};
    }
    return found != log.peers.end() ? &found->limit : nullptr;
}

} // namespace

bool rpc_log_allowed(rpc_log_limit &limit, std::uint64_t interval_ms, std::uint32_t *held_back)
{
    const std::uint64_t now = rpc_now_ms();
    if (now < limit.next_ms) {
        ++limit.held_back;
        return false;
    }
    limit.next_ms = now + interval_ms;
    *held_back = std::exchange(limit.held_back, 0);
    return true;
}

void rpc_refusal_tell(rpc_refusal_log &log, std::uint64_t interval_ms, rpc_refusal kind,
                      const std::string &what, const remote_attestation_api_endpoint &peer,
                      const std::string &why)
{
    std::uint32_t held_back = 0;
    bool own = false;
    {
        const std::lock_guard guard(log.lock);
        rpc_log_limit *limit = limit_of(log, peer.address, kind);
        own = limit != nullptr;
        if (!rpc_log_allowed(own ? *limit : log.others, interval_ms, &held_back))
            return;
    }
    std::string more;
    if (held_back != 0)
        more =
            " (" + std::to_string(held_back) + (own ? " more of this address)" : " more of other addresses)");
    operator_log(LOG_NOTICE, "%s from %s refused: %s%s", what.c_str(), rpc_endpoint_text(peer).c_str(),
                 why.c_str(), more.c_str());
}

bool rpc_handshake_failed(const char *line)
{
    const std::string_view text = line;
    if (text.find("andshake failed") == std::string_view::npos)
        return false;
    try {
        const std::lock_guard guard(reasons_lock);
        if (reasons.size() == MOST_REASONS)
            reasons.pop_front();
        reasons.push_back({rpc_now_ms(), reason_of(text)});
    } catch (const std::bad_alloc &) { // nobody is told why
    }
    return true;
}

std::string rpc_handshake_reason()
{
    const std::lock_guard guard(reasons_lock);
    const std::uint64_t now = rpc_now_ms(); // under the lock: no reason may be younger
    while (!reasons.empty()) {
        const handshake_reason oldest = std::move(reasons.front());
        reasons.pop_front();
        if (now - oldest.at_ms < REASON_LIFE_MS)
            return oldest.text;
    }
    return {};
}
