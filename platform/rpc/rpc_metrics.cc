#include "platform/rpc/rpc_metrics.h"

#include <algorithm>
#include <array>
#include <new>

#include "platform/metrics.h"
#include "platform/rpc/server.h"

namespace {

constexpr metric_family requests = {metric_kind::counter,
                                    "attest_requests_total",
                                    "Calls that are over, by the status they ended with.",
                                    {"operation", "outcome"}};
constexpr metric_family answer_times = {
    metric_kind::seconds,
    "attest_request_seconds",
    "From the request to the last message of its answer, waiting for other requests included.",
    {"operation"}};
constexpr metric_family refusals = {
    metric_kind::counter, "attest_refusals_total", "Connections and calls that were turned away.", {"what"}};
constexpr metric_family reloads = {metric_kind::counter,
                                   "attest_settings_reloads_total",
                                   "Changed files of settings that were taken up, or could not be.",
                                   {"file", "outcome"}};
constexpr metric_family connections = {
    metric_kind::gauge, "attest_connections", "Connections that are open.", {}};
constexpr metric_family open_calls = {metric_kind::gauge, "attest_calls", "Calls that are open.", {}};
constexpr metric_family paused_streams = {metric_kind::gauge,
                                          "attest_paused_streams",
                                          "Streams that wait for their client to take what was sent.",
                                          {}};
constexpr metric_family queue_bytes = {
    metric_kind::gauge, "attest_queue_bytes", "What is queued for clients and not yet sent.", {}};
constexpr metric_family certificate_expiry = {metric_kind::gauge,
                                              "attest_tls_certificate_expiry_timestamp_seconds",
                                              "When the certificate that the node is served with expires.",
                                              {}};

const char *name_of(rpc_code code)
{
    switch (code) {
    case rpc_code::ok:
        return "ok";
    case rpc_code::cancelled:
        return "cancelled";
    case rpc_code::invalid_argument:
        return "invalid_argument";
    case rpc_code::not_found:
        return "not_found";
    case rpc_code::permission_denied:
        return "permission_denied";
    case rpc_code::resource_exhausted:
        return "resource_exhausted";
    case rpc_code::aborted:
        return "aborted";
    case rpc_code::unimplemented:
        return "unimplemented";
    case rpc_code::unavailable:
        return "unavailable";
    }
    return "unknown";
}

// What there is no memory to count is not counted.
template <class Count>
void count_if_possible(Count count) noexcept
{
    try {
        count();
    } catch (const std::bad_alloc &) {
        return;
    }
}

} // namespace

void rpc_count_call(const rpc_method *method, rpc_code outcome)
{
    count_if_possible([=] {
        metric_add(requests, {method != nullptr ? rpc_method_name(*method) : "unknown", name_of(outcome)});
    });
}

void rpc_time_answer(const rpc_method &method, std::chrono::steady_clock::time_point asked)
{
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - asked;
    count_if_possible([&] { metric_observe(answer_times, {rpc_method_name(method)}, taken.count()); });
}

void rpc_count_refusal(std::string_view what)
{
    count_if_possible([=] { metric_add(refusals, {what}); });
}

void rpc_count_reload(std::string_view what, bool taken)
{
    metric_add(reloads, {what, taken ? "taken" : "refused"});
}

void rpc_collect(void *context)
{
    const auto &server = *static_cast<const remote_attestation_api_server *>(context);
    std::uint64_t bytes = 0;
    std::size_t calls = 0;
    std::int64_t paused = 0;
    for (const auto &[id, connection] : server.connections) {
        rpc_client &client = *connection->client;
        const std::lock_guard guard(client.lock);
        bytes += client.queued;
        calls += client.calls.size();
        paused += std::count_if(client.calls.begin(), client.calls.end(),
                                [](const auto &call) { return call->paused; });
    }
    metric_set(connections, {}, static_cast<double>(server.connections.size()));
    metric_set(open_calls, {}, static_cast<double>(calls));
    metric_set(paused_streams, {}, static_cast<double>(paused));
    metric_set(queue_bytes, {}, static_cast<double>(bytes));
    if (server.settings.tls.on())
        metric_set(certificate_expiry, {}, static_cast<double>(server.settings.tls.expires));
}
