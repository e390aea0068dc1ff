// The server's life, and the inbox: what gRPC's threads tell becomes callbacks of the agent here.
#include "platform/rpc/server.h"

#include <cerrno>
#include <new>
#include <syslog.h>
#include <utility>

#include "platform/metrics.h"
#include "platform/operator_log.h"
#include "platform/rpc/calls.h"
#include "platform/rpc/rpc_metrics.h"
#include "platform/status.h"

namespace {

// Every server of the process, by number. Loop's thread.
std::unordered_map<std::uint64_t, remote_attestation_api_server *> all_servers;

remote_attestation_api_server *find_server(std::uint64_t number)
{
    const auto found = all_servers.find(number);
    return found == all_servers.end() ? nullptr : found->second;
}

// An error of a client drops its paused stream, whichever it was: it is not raised for a call that is not
// paused while another one is.
void raise_error(remote_attestation_api_server &server, const rpc_event &event, int error)
{
    if (!rpc_client_paused_another(*event.client, *event.call) && server.callbacks.error != nullptr)
        server.callbacks.error(event.client->id, nullptr, platform_status_from_errno(error));
}

// Bytes that are no request are answered here, with a message without any field: handing the agent an empty
// request instead would have it gather evidence that nobody asked for.
void answer_garbage(remote_attestation_api_server &server, rpc_connection &connection, rpc_call &call)
{
    std::uint32_t held_back = 0;
    if (rpc_log_allowed(server.garbage_log, server.limits.log_interval_ms, &held_back))
        operator_log(LOG_NOTICE, "a request from %s cannot be decoded, answered without evidence (%u more)",
                     rpc_endpoint_text(connection.remote).c_str(), held_back);
    std::uint64_t cost = 0;
    if (rpc_call_reserve(call, 0, true, &cost) == 0)
        rpc_call_send(call, {nullptr, 0, cost}, true);
}

void on_request(remote_attestation_api_server &server, const rpc_event &event)
{
    rpc_connection *connection = rpc_connection_find(event.client->id);
    const bool too_much =
        event.call->method->whole_log && rpc_connections_queued(server) > server.limits.all_queues_bytes;
    if (connection == nullptr || !rpc_client_take_delivery(*event.client, event, too_much))
        return;
    if (rpc_client_gave_up_pause(*event.client) && server.callbacks.error != nullptr)
        server.callbacks.error(event.client->id, nullptr, platform_status_from_errno(ECANCELED));
    const rpc_delivery result = event.call->method->deliver(server.callbacks, event.client->id, event.request,
                                                            event.call->request_id);
    if (result == rpc_delivery::undecodable) {
        answer_garbage(server, *connection, *event.call);
        raise_error(server, event, EBADMSG);
    } else if (result == rpc_delivery::no_callback) {
        rpc_call_end(*event.call, rpc_code::unimplemented, "not served here");
    }
}

void on_call_over(remote_attestation_api_server &server, const rpc_event &event)
{
    rpc_client_forget_call(*event.client, event.call.get());
    if (rpc_connection_find(event.client->id) != nullptr && rpc_call_is_outstanding(*event.call))
        raise_error(server, event, ECANCELED);
}

void on_drained(remote_attestation_api_server &server, const rpc_event &event)
{
    if (rpc_connection_find(event.client->id) == nullptr || !rpc_client_begin_resume(*event.client))
        return;
    if (server.callbacks.flow_resume != nullptr)
        server.callbacks.flow_resume(event.client->id);
    rpc_client_end_resume(*event.client);
}

void handle(remote_attestation_api_server &server, const rpc_event &event)
{
    switch (event.what) {
    case rpc_event::kind::request:
        return on_request(server, event);
    case rpc_event::kind::call_over:
        return on_call_over(server, event);
    case rpc_event::kind::drained:
        return on_drained(server, event);
    }
}

// An event that there is no memory for ends its client's connection: gRPC's side of a call may be half done,
// and its client would wait for the rest.
void handle_or_close(remote_attestation_api_server &server, const rpc_event &event)
{
    try {
        handle(server, event);
    } catch (const std::bad_alloc &) {
        if (rpc_connection *connection = rpc_connection_find(event.client->id))
            rpc_connection_close(*connection, ENOMEM, true);
    }
}

std::uint32_t start(remote_attestation_api_server &server,
                    const remote_attestation_api_activation *parameters)
{
    rpc_settings settings{};
    std::uint32_t status = rpc_settings_read(parameters, &settings);
    if (status == 0)
        status = rpc_listener_open(server, settings.endpoint);
    if (status != 0)
        return status;
    server.shared = std::make_shared<rpc_shared>();
    server.shared->limits = server.limits;
    server.shared->instance = server.instance;
    server.shared->manager = server.manager;
    server.shared->server_number = server.number;
    server.shared->allow = settings.allow;
    server.settings = std::move(settings);
    server.grpc = rpc_grpc_start(server.shared, server.settings.tls);
    if (server.grpc == nullptr) {
        operator_log(LOG_ERR, "the remote attestation API cannot be served: gRPC does not start");
        return platform_status_from_errno(EIO);
    }
    metrics_collect_with(rpc_collect, &server);
    const char *whom = "without TLS";
    if (server.settings.tls.on())
        whom = server.settings.allow != nullptr ? "to the clients of ATTEST_ALLOW"
                                                : "to clients with a certificate";
    operator_log(LOG_INFO, "the remote attestation API is served on %s, %s",
                 rpc_endpoint_text(server.endpoint).c_str(), whom);
    return 0;
}

void stop(remote_attestation_api_server &server)
{
    metrics_collect_no_more(rpc_collect, &server);
    rpc_listener_close(server);
    rpc_connection_close_all(server, ESHUTDOWN);
    server.sweep.reset();
    server.former.clear();
    server.grpc.reset();
    if (server.shared == nullptr)
        return;
    std::list<rpc_event> dropped;
    const std::lock_guard guard(server.shared->lock);
    server.shared->closed = true;
    dropped.swap(server.shared->inbox);
}

} // namespace

void rpc_server_read_inbox(void *context)
{
    remote_attestation_api_server *server = find_server(reinterpret_cast<std::uint64_t>(context));
    if (server == nullptr || server->shared == nullptr)
        return;
    rpc_shared &shared = *server->shared;
    rpc_event event{};
    {
        const std::lock_guard guard(shared.lock);
        shared.posted = false;
        if (shared.inbox.empty())
            return;
        event = std::move(shared.inbox.front());
        shared.inbox.pop_front();
        if (!shared.inbox.empty()) {
            shared.posted = true;
            levm_post(shared.manager, rpc_server_read_inbox, context);
        }
    }
    handle_or_close(*server, event);
}

void rpc_server_set_limits(remote_attestation_api_server *server, const rpc_limits &limits)
{
    server->limits = limits;
}

std::uint32_t rpc_server_port(const remote_attestation_api_server *server)
{
    return server->endpoint.port;
}

std::uint32_t remote_attestation_api_server_handle_create(remote_attestation_api_server **server,
                                                          levm *manager, std::uint32_t)
{
    static std::uint64_t last_number = 0;
    *server = nullptr;
    if (manager == nullptr)
        return platform_status_from_errno(EINVAL);
    try {
        auto made = std::make_unique<remote_attestation_api_server>();
        made->number = ++last_number;
        made->manager = manager;
        all_servers[made->number] = made.get();
        *server = made.release();
        return 0;
    } catch (const std::bad_alloc &) {
        return platform_status_from_errno(ENOMEM);
    }
}

std::uint32_t remote_attestation_api_server_activate(remote_attestation_api_server *server,
                                                     const remote_attestation_api_activation *parameters)
{
    if (server == nullptr)
        return platform_status_from_errno(EINVAL);
    if (server->listener)
        return platform_status_from_errno(EALREADY);
    std::uint32_t status = platform_status_from_errno(ENOMEM);
    try {
        status = start(*server, parameters);
    } catch (const std::bad_alloc &) { // that status
    }
    if (status != 0)
        remote_attestation_api_server_deactivate(server);
    return status;
}

std::uint32_t remote_attestation_api_server_deactivate(remote_attestation_api_server *server)
{
    if (server == nullptr)
        return platform_status_from_errno(EINVAL);
    stop(*server);
    server->shared.reset();
    return 0;
}

std::uint32_t remote_attestation_api_server_handle_destroy(remote_attestation_api_server *server)
{
    const std::uint32_t status = remote_attestation_api_server_deactivate(server);
    if (status != 0)
        return status;
    all_servers.erase(server->number);
    delete server;
    return 0;
}

// ---- registrations ----

void remote_attestation_api_server_set_connect_callback(remote_attestation_api_server *server,
                                                        remote_attestation_api_connect_callback callback)
{
    server->callbacks.connect = callback;
}

void remote_attestation_api_server_set_disconnect_callback(
    remote_attestation_api_server *server, remote_attestation_api_disconnect_callback callback)
{
    server->callbacks.disconnect = callback;
}

void remote_attestation_api_server_set_error_callback(remote_attestation_api_server *server,
                                                      remote_attestation_api_error_callback callback)
{
    server->callbacks.error = callback;
}

void remote_attestation_api_server_set_service_instance(remote_attestation_api_server *server,
                                                        const char *name)
{
    server->instance = name;
}

void remote_attestation_api_server_set_flow_resume_callback(
    remote_attestation_api_server *server, remote_attestation_api_flow_resume_callback callback)
{
    server->callbacks.flow_resume = callback;
}

void remote_attestation_api_server_set_get_certificate_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_certificate_request> callback)
{
    server->callbacks.get_certificate = callback;
}

void remote_attestation_api_server_set_get_platform_boot_integrity_event_logs_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_platform_boot_integrity_event_logs_request> callback)
{
    server->callbacks.get_platform_boot_integrity_event_logs = callback;
}

void remote_attestation_api_server_set_attest_pcrs_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<attest_pcr_request> callback)
{
    server->callbacks.attest_pcrs = callback;
}

void remote_attestation_api_server_set_get_platform_ima_event_logs_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_platform_ima_event_logs_request> callback)
{
    server->callbacks.get_platform_ima_event_logs = callback;
}

void remote_attestation_api_server_set_get_platform_hw_integrity_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_platform_hw_integrity_request> callback)
{
    server->callbacks.get_platform_hw_integrity = callback;
}

void remote_attestation_api_server_set_stream_ima_event_logs_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_platform_ima_event_logs_request> callback)
{
    server->callbacks.stream_ima_event_logs = callback;
}
