// The connection table: connect, disconnect, and what the agent asks of a connection.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <linux/tcp.h>
#include <malloc.h>
#include <netinet/in.h>
#include <new>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <utility>

#include "platform/operator_log.h"
#include "platform/rpc/calls.h"
#include "platform/rpc/rpc_metrics.h"
#include "platform/rpc/server.h"
#include "platform/status.h"

namespace {

// A machine that vanished without a word is noticed after 60 + 4 * 15 seconds.
constexpr int KEEPALIVE_IDLE_S = 60;
constexpr int KEEPALIVE_INTERVAL_S = 15;
constexpr int KEEPALIVE_PROBES = 4;

// Every connection of the process, by client. Loop's thread.
std::unordered_map<remote_attestation_api_client, rpc_connection *> all_connections;

remote_attestation_api_client next_client()
{
    static remote_attestation_api_client last = 0;
    return ++last;
}

void keep_alive(int socket)
{
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &KEEPALIVE_IDLE_S, sizeof KEEPALIVE_IDLE_S);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &KEEPALIVE_INTERVAL_S, sizeof KEEPALIVE_INTERVAL_S);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &KEEPALIVE_PROBES, sizeof KEEPALIVE_PROBES);
}

remote_attestation_api_endpoint local_endpoint(int socket)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr *>(&address), &length);
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

// A client that TLS refused is told no more than the alert; the operator is told whom it was. Only who has
// said something can have been refused, and only before its first call.
void tell_if_refused(const rpc_connection &connection)
{
    remote_attestation_api_server &server = *connection.server;
    tcp_info info{};
    socklen_t length = sizeof info;
    if (!server.settings.tls.on() || connection.client->has_called ||
        getsockopt(connection.socket.get(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0 ||
        info.tcpi_bytes_received == 0)
        return;
    const std::string reason = rpc_handshake_reason();
    if (reason.empty())
        return;
    rpc_count_refusal("handshake");
    rpc_refusal_tell(server.shared->refusals, server.limits.log_interval_ms, rpc_refusal::connection,
                     "connection", connection.remote, reason);
}

// Either side may have ended it: gRPC shuts the descriptor down before it closes its own.
void on_hang_up(void *context, std::uint32_t)
{
    auto &connection = *static_cast<rpc_connection *>(context);
    try {
        tell_if_refused(connection);
    } catch (const std::bad_alloc &) {
        // Nobody is told.
    }
    rpc_connection_close(connection, ECONNRESET, false);
}

// Whether the client's machine has acknowledged bytes since the last time.
bool has_moved(rpc_connection &connection)
{
    tcp_info info{};
    socklen_t length = sizeof info;
    if (getsockopt(connection.socket.get(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0)
        return false;
    return std::exchange(connection.acknowledged, info.tcpi_bytes_acked) != info.tcpi_bytes_acked;
}

void close_if_stalled(rpc_connection &connection)
{
    remote_attestation_api_server &server = *connection.server;
    rpc_client_look_again(*connection.client);
    if (!rpc_client_is_stalled(*connection.client, rpc_now_ms(), has_moved(connection)))
        return;
    std::uint32_t held_back = 0;
    if (rpc_log_allowed(server.stall_log, server.limits.log_interval_ms, &held_back))
        operator_log(LOG_NOTICE, "connection from %s ended: a call of it does not move (%u more ended)",
                     rpc_endpoint_text(connection.remote).c_str(), held_back);
    rpc_connection_close(connection, ETIMEDOUT, true);
}

void sweep_connections(const remote_attestation_api_server &server)
{
    std::vector<remote_attestation_api_client> clients; // callbacks may change the table
    for (const auto &[client, connection] : server.connections)
        clients.push_back(client);
    for (const auto client : clients) {
        if (rpc_connection *connection = rpc_connection_find(client))
            close_if_stalled(*connection);
    }
}

// The C library keeps what it has once got: after many clients who did not take their answers, all their
// queues.
void give_memory_back(remote_attestation_api_server &server)
{
    const std::uint64_t queued = rpc_connections_queued(server);
    server.most_queued = std::max(server.most_queued, queued);
    if (server.most_queued - queued < server.limits.kept_bytes)
        return;
    server.most_queued = queued;
    malloc_trim(0);
}

void on_sweep(void *context)
{
    auto &server = *static_cast<remote_attestation_api_server *>(context);
    try {
        sweep_connections(server);
        give_memory_back(server);
        rpc_reload_changed(server);
        rpc_reload_end_retired(server);
    } catch (const std::bad_alloc &) {
        // The next sweep does it.
    }
    if (!server.connections.empty() || !server.former.empty())
        levm_watch_timer_rearm(server.sweep.get(), server.limits.sweep_ms);
    else
        server.sweep.reset();
}

// The new peer's number on the wire may still be that of a connection whose end is about to be noticed.
void close_former(remote_attestation_api_server &server, std::uint64_t key)
{
    remote_attestation_api_client former = 0;
    {
        const std::lock_guard guard(server.shared->lock);
        const auto found = server.shared->peers.find(key);
        if (found != server.shared->peers.end())
            former = found->second->id;
    }
    if (rpc_connection *connection = rpc_connection_find(former))
        rpc_connection_close(*connection, ECONNRESET, false);
}

void refuse(remote_attestation_api_server &server, int error)
{
    if (server.callbacks.connect != nullptr)
        server.callbacks.connect(0, nullptr, platform_status_from_errno(error));
}

// Puts the connection into the tables. False without memory, and it is in none.
bool enter(remote_attestation_api_server &server, std::uint64_t key, std::unique_ptr<rpc_connection> &owned)
{
    rpc_connection &connection = *owned;
    try {
        connection.client = std::make_shared<rpc_client>();
        connection.client->id = connection.id;
        connection.client->shared = server.shared;
        all_connections[connection.id] = &connection;
        server.connections.try_emplace(connection.id);
        const std::lock_guard guard(server.shared->lock);
        server.shared->peers[key] = connection.client;
    } catch (const std::bad_alloc &) {
        all_connections.erase(connection.id);
        server.connections.erase(connection.id);
        return false;
    }
    server.connections[connection.id] = std::move(owned);
    return true;
}

} // namespace

std::uint64_t rpc_connections_queued(const remote_attestation_api_server &server)
{
    std::uint64_t queued = 0;
    for (const auto &[client, connection] : server.connections) {
        const std::lock_guard guard(connection->client->lock);
        queued += connection->client->queued;
    }
    return queued;
}

rpc_connection *rpc_connection_find(remote_attestation_api_client client)
{
    const auto found = all_connections.find(client);
    return found == all_connections.end() ? nullptr : found->second;
}

void rpc_connection_open(remote_attestation_api_server &server, unique_fd socket,
                         const remote_attestation_api_endpoint &remote)
{
    const std::uint64_t key = rpc_peer_key(remote.address, remote.port);
    close_former(server, key);
    std::unique_ptr<rpc_connection> owned(new (std::nothrow) rpc_connection);
    if (owned == nullptr)
        return refuse(server, ENOMEM);
    rpc_connection &connection = *owned;
    connection.id = next_client();
    connection.server = &server;
    connection.remote = remote;
    connection.local = local_endpoint(socket.get());
    connection.socket.reset(fcntl(socket.get(), F_DUPFD_CLOEXEC, 0));
    if (!connection.socket)
        return refuse(server, errno);
    connection.watch.reset(
        levm_watch_fd(server.manager, connection.socket.get(), EPOLLRDHUP, on_hang_up, &connection));
    if (connection.watch == nullptr)
        return refuse(server, ENOMEM);
    keep_alive(socket.get());
    const remote_attestation_api_client id = connection.id;
    if (!enter(server, key, owned))
        return refuse(server, ENOMEM);
    if (server.sweep == nullptr)
        server.sweep.reset(levm_watch_timer(server.manager, server.limits.sweep_ms, on_sweep, &server));
    if (server.callbacks.connect != nullptr)
        server.callbacks.connect(id, nullptr, 0);
    if (server.grpc != nullptr) // the callback may have deactivated the server
        rpc_grpc_take_connection(*server.grpc, socket.release());
}

void rpc_connection_close(rpc_connection &connection, int error, bool reset)
{
    remote_attestation_api_server &server = *connection.server;
    auto node = server.connections.extract(connection.id);
    if (node.empty())
        return; // a callback of its own end
    {
        const std::lock_guard guard(server.shared->lock);
        const auto found =
            server.shared->peers.find(rpc_peer_key(connection.remote.address, connection.remote.port));
        if (found != server.shared->peers.end() && found->second == connection.client)
            server.shared->peers.erase(found);
    }
    connection.watch.reset();
    const bool outstanding = rpc_client_shut(*connection.client);
    if (reset) {
        const linger at_once{1, 0};
        setsockopt(connection.socket.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    shutdown(connection.socket.get(), SHUT_RDWR); // gRPC sees it, and lets go of its descriptor
    if (outstanding && server.callbacks.error != nullptr)
        server.callbacks.error(connection.id, nullptr, platform_status_from_errno(error));
    if (server.callbacks.disconnect != nullptr)
        server.callbacks.disconnect(connection.id, 0);
    all_connections.erase(connection.id);
}

void rpc_connection_close_all(remote_attestation_api_server &server, int error)
{
    while (!server.connections.empty())
        rpc_connection_close(*server.connections.begin()->second, error, false);
}

// ---- what the agent asks of a client ----

std::uint64_t remote_attestation_api_server_get_user_context(remote_attestation_api_client client)
{
    const rpc_connection *connection = rpc_connection_find(client);
    return connection != nullptr ? connection->user_context : 0;
}

void remote_attestation_api_server_set_user_context(remote_attestation_api_client client,
                                                    std::uint64_t context)
{
    if (rpc_connection *connection = rpc_connection_find(client))
        connection->user_context = context;
}

remote_attestation_api_transport
remote_attestation_api_client_get_transport(remote_attestation_api_client client)
{
    return {client};
}

std::uint32_t transport_get_remote_endpoint(remote_attestation_api_transport transport,
                                            remote_attestation_api_endpoint *endpoint)
{
    const rpc_connection *connection = rpc_connection_find(transport.client);
    *endpoint = connection != nullptr ? connection->remote : remote_attestation_api_endpoint{};
    return connection != nullptr ? 0 : platform_status_from_errno(ENOTCONN);
}

std::uint32_t transport_get_local_endpoint(remote_attestation_api_transport transport,
                                           remote_attestation_api_endpoint *endpoint)
{
    const rpc_connection *connection = rpc_connection_find(transport.client);
    *endpoint = connection != nullptr ? connection->local : remote_attestation_api_endpoint{};
    return connection != nullptr ? 0 : platform_status_from_errno(ENOTCONN);
}

std::uint32_t transport_set_buffering(remote_attestation_api_transport transport, int on)
{
    const rpc_connection *connection = rpc_connection_find(transport.client);
    if (connection == nullptr)
        return platform_status_from_errno(ENOTCONN);
    const int no_delay = on == 0 ? 1 : 0;
    const int result =
        setsockopt(connection->socket.get(), IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof no_delay);
    return result == 0 ? 0 : platform_status_from_errno(errno);
}
