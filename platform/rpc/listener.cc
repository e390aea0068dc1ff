// The listening socket: the layer's own, so that limits hold before gRPC spends anything on a connection.
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <new>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <utility>

#include "platform/operator_log.h"
#include "platform/rpc/rpc_metrics.h"
#include "platform/rpc/server.h"
#include "platform/status.h"

namespace {

// Connections that wait to be accepted while a callback runs.
constexpr int BACKLOG = 128;
// Accepted in one go, before other events of the loop get their turn.
constexpr int ACCEPT_BATCH = 64;

void watch_listener(remote_attestation_api_server &server);

void accepting_resumes(void *context)
{
    auto &server = *static_cast<remote_attestation_api_server *>(context);
    if (!server.listener || server.accept_watch != nullptr)
        return;
    watch_listener(server);
    if (server.accept_watch == nullptr) // no memory for it yet
        levm_watch_timer_rearm(server.accept_pause.get(), server.limits.accept_pause_ms);
}

// The listening socket stays readable while accept fails: rest, instead of turning in circles.
void pause_accepting(remote_attestation_api_server &server, int error)
{
    std::uint32_t held_back = 0;
    if (rpc_log_allowed(server.accept_log, server.limits.log_interval_ms, &held_back))
        operator_log(LOG_WARNING, "cannot accept connections now: %s (%u more times)", std::strerror(error),
                     held_back);
    if (levm_watch_timer_rearm(server.accept_pause.get(), server.limits.accept_pause_ms) == 0)
        server.accept_watch.reset();
}

// False when there is nothing more to accept now.
bool accept_one(remote_attestation_api_server &server)
{
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    unique_fd accepted(accept4(server.listener.get(), reinterpret_cast<sockaddr *>(&peer), &length,
                               SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!accepted) {
        const int error = errno;
        if (error == EAGAIN || error == EWOULDBLOCK)
            return false;
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
            pause_accepting(server, error);
            return false;
        }
        return true; // the network's errors belong to the connection that is gone
    }
    const remote_attestation_api_endpoint remote{ntohl(peer.sin_addr.s_addr), ntohs(peer.sin_port)};
    if (server.connections.size() < server.limits.connections) {
        rpc_reload_changed(server);
        rpc_connection_open(server, std::move(accepted), remote);
        return true;
    }
    rpc_count_refusal("full");
    std::uint32_t held_back = 0;
    if (rpc_log_allowed(server.full_log, server.limits.log_interval_ms, &held_back))
        operator_log(LOG_WARNING, "connection from %s refused: all %u are taken (%u more refused)",
                     rpc_endpoint_text(remote).c_str(), server.limits.connections, held_back);
    return true;
}

void on_listener(void *context, std::uint32_t)
{
    auto &server = *static_cast<remote_attestation_api_server *>(context);
    try {
        for (int i = 0; i < ACCEPT_BATCH && server.listener; ++i) {
            if (!accept_one(server))
                return;
        }
    } catch (const std::bad_alloc &) {
        pause_accepting(server, ENOMEM); // the connection that it was for is closed
    }
}

void watch_listener(remote_attestation_api_server &server)
{
    server.accept_watch.reset(
        levm_watch_fd(server.manager, server.listener.get(), EPOLLIN, on_listener, &server));
}

std::uint32_t refuse(const remote_attestation_api_endpoint &endpoint, int error)
{
    operator_log(LOG_ERR, "cannot listen on %s: %s", rpc_endpoint_text(endpoint).c_str(),
                 std::strerror(error));
    return platform_status_from_errno(error);
}

} // namespace

std::uint32_t rpc_listener_open(remote_attestation_api_server &server,
                                const remote_attestation_api_endpoint &endpoint)
{
    unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(endpoint.address);
    address.sin_port = htons(static_cast<std::uint16_t>(endpoint.port));
    socklen_t length = sizeof address;
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    // Reuse: a restarted agent must not wait for the connections of the last one to fade.
    if (!listener || setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener.get(), generic, length) != 0 || listen(listener.get(), BACKLOG) != 0 ||
        getsockname(listener.get(), generic, &length) != 0)
        return refuse(endpoint, errno);
    server.endpoint = {endpoint.address, ntohs(address.sin_port)};
    server.listener = std::move(listener);
    watch_listener(server);
    // Made now: a timer may take a descriptor, and is needed when there is none left.
    server.accept_pause.reset(
        levm_watch_timer(server.manager, server.limits.accept_pause_ms, accepting_resumes, &server));
    if (server.accept_watch != nullptr && server.accept_pause != nullptr)
        return 0;
    rpc_listener_close(server);
    return refuse(endpoint, ENOMEM);
}

void rpc_listener_close(remote_attestation_api_server &server)
{
    server.accept_pause.reset();
    server.accept_watch.reset();
    server.listener.reset();
    server.endpoint = {};
}
