// Who asks for the metrics, on the event loop: a listening socket, and a request and an answer a connection.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <netinet/in.h>
#include <new>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <utility>
#include <vector>

#include "platform/metrics.h"
#include "platform/metrics/registry.h"
#include "platform/operator_log.h"
#include "platform/owners.h"
#include "platform/status.h"

namespace {

// One collector asks, a person with curl beside it; more wait in the backlog no longer than they are let.
constexpr std::size_t MOST_CONNECTIONS = 8;
constexpr std::uint64_t CONNECTION_MS = 5'000;
// A request line with the few header fields of a collector.
constexpr std::size_t LARGEST_REQUEST = 8192;
constexpr int BACKLOG = 16;
// Accepting rests this long when there are no descriptors or no memory: the listening socket stays readable.
constexpr std::uint64_t REST_MS = 100;

struct connection {
    unique_fd socket;
    std::string request, answer;
    std::size_t sent = 0;
    levm_watch_ptr ready, limit; // after `socket`: released before it is closed
};

struct collector {
    void (*collect)(void *context);
    void *context;
    bool operator==(const collector &) const = default;
};

struct metrics_server {
    levm *manager = nullptr;
    std::string path; // of the UNIX socket, to be removed
    unique_fd listener;
    levm_watch_ptr accepts, rest;
    std::list<connection> connections;
};
metrics_server server;
std::vector<collector> collectors;

struct address {
    sockaddr_storage bytes{};
    socklen_t length = 0;
};

// "PORT", "A.B.C.D:PORT" or "unix:PATH". False for anything else, and for an address that others can reach:
// the text has no secrets, but it has no guard either.
bool parse(std::string_view text, address *parsed, std::string *path)
{
    constexpr std::string_view unix_scheme = "unix:";
    if (text.starts_with(unix_scheme)) {
        *path = text.substr(unix_scheme.size());
        sockaddr_un local{};
        local.sun_family = AF_UNIX;
        if (path->empty() || path->size() >= sizeof local.sun_path)
            return false;
        path->copy(local.sun_path, sizeof local.sun_path - 1);
        std::memcpy(&parsed->bytes, &local, sizeof local);
        parsed->length = sizeof local;
        return true;
    }
    sockaddr_in inet{};
    inet.sin_family = AF_INET;
    inet.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (const std::size_t colon = text.find(':'); colon != std::string_view::npos) {
        if (inet_pton(AF_INET, std::string(text.substr(0, colon)).c_str(), &inet.sin_addr) != 1)
            return false;
        text.remove_prefix(colon + 1);
    }
    std::uint16_t port = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc{} || stop != text.data() + text.size() || port == 0 ||
        ntohl(inet.sin_addr.s_addr) >> 24 != IN_LOOPBACKNET)
        return false;
    inet.sin_port = htons(port);
    std::memcpy(&parsed->bytes, &inet, sizeof inet);
    parsed->length = sizeof inet;
    return true;
}

void forget(connection &gone)
{
    server.connections.remove_if([&gone](const connection &one) { return &one == &gone; });
}

std::string answer_to(std::string_view request)
{
    std::string status = "200 OK", body;
    const std::string_view line = request.substr(0, request.find('\r'));
    if (!line.starts_with("GET ")) {
        status = "405 Method Not Allowed";
    } else if (!line.starts_with("GET /metrics ") && !line.starts_with("GET /metrics?")) {
        status = "404 Not Found";
        body = "/metrics\n";
    } else {
        for (const collector &one : std::vector<collector>(collectors))
            one.collect(one.context);
        body = metrics_registry_text();
    }
    return "HTTP/1.1 " + status +
           "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nConnection: "
           "close\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

// More of the answer, as the other side takes it.
void on_writable(void *context, std::uint32_t)
{
    auto &one = *static_cast<connection *>(context);
    const ssize_t sent =
        send(one.socket.get(), one.answer.data() + one.sent, one.answer.size() - one.sent, MSG_NOSIGNAL);
    if (sent < 0 && errno == EAGAIN)
        return;
    one.sent += sent < 0 ? 0 : static_cast<std::size_t>(sent);
    if (sent < 0 || one.sent == one.answer.size())
        forget(one);
}

void take_request(connection &one)
{
    std::array<char, 2048> part{};
    const ssize_t got = recv(one.socket.get(), part.data(), part.size(), 0);
    if (got < 0 && errno == EAGAIN)
        return;
    if (got > 0)
        one.request.append(part.data(), static_cast<std::size_t>(got));
    if (got <= 0 || one.request.size() > LARGEST_REQUEST)
        return forget(one);
    if (one.request.find("\r\n\r\n") == std::string::npos)
        return;
    one.answer = answer_to(one.request);
    one.ready.reset();
    one.ready.reset(levm_watch_fd(server.manager, one.socket.get(), EPOLLOUT, on_writable, &one));
    if (one.ready == nullptr)
        forget(one);
}

// Without memory the connection ends without an answer.
void on_readable(void *context, std::uint32_t)
{
    auto &one = *static_cast<connection *>(context);
    try {
        take_request(one);
    } catch (const std::bad_alloc &) {
        forget(one);
    }
}

void accept_one();

void on_listener(void *, std::uint32_t)
{
    try {
        accept_one();
    } catch (const std::bad_alloc &) {
        return; // it is closed
    }
}

void watch_listener()
{
    server.accepts.reset(levm_watch_fd(server.manager, server.listener.get(), EPOLLIN, on_listener, nullptr));
}

void rest_is_over(void *)
{
    if (!server.listener || server.accepts != nullptr)
        return;
    watch_listener();
    if (server.accepts == nullptr) // no memory for it yet
        levm_watch_timer_rearm(server.rest.get(), REST_MS);
}

void accept_one()
{
    unique_fd accepted(accept4(server.listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!accepted && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) &&
        levm_watch_timer_rearm(server.rest.get(), REST_MS) == 0)
        server.accepts.reset();
    if (!accepted || server.connections.size() >= MOST_CONNECTIONS)
        return;
    connection &one = server.connections.emplace_back();
    one.socket = std::move(accepted);
    one.ready.reset(levm_watch_fd(server.manager, one.socket.get(), EPOLLIN, on_readable, &one));
    one.limit.reset(levm_watch_timer(
        server.manager, CONNECTION_MS, [](void *context) { forget(*static_cast<connection *>(context)); },
        &one));
    if (one.ready == nullptr || one.limit == nullptr)
        forget(one);
}

void close_listener()
{
    server.rest.reset();
    server.accepts.reset();
    server.listener.reset();
}

// What an agent left that was killed. Only a socket is removed: a path that was mistyped may be anything.
void remove_socket(const std::string &path)
{
    struct stat about {};
    if (lstat(path.c_str(), &about) == 0 && S_ISSOCK(about.st_mode))
        unlink(path.c_str());
}

int listen_at(const address &where)
{
    const auto *generic = reinterpret_cast<const sockaddr *>(&where.bytes);
    unique_fd listener(socket(where.bytes.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (!listener || setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        return errno;
    if (!server.path.empty())
        remove_socket(server.path);
    if (bind(listener.get(), generic, where.length) != 0 || listen(listener.get(), BACKLOG) != 0)
        return errno;
    server.listener = std::move(listener);
    watch_listener();
    // Made now: a timer may take a descriptor, and is needed when there is none left.
    server.rest.reset(levm_watch_timer(server.manager, REST_MS, rest_is_over, nullptr));
    if (server.accepts != nullptr && server.rest != nullptr)
        return 0;
    close_listener();
    return ENOMEM;
}

} // namespace

void metrics_collect_with(void (*collect)(void *context), void *context)
{
    collectors.push_back({collect, context});
}

void metrics_collect_no_more(void (*collect)(void *context), void *context)
{
    std::erase(collectors, collector{collect, context});
}

std::uint32_t metrics_start(levm *manager)
{
    const char *setting = std::getenv("ATTEST_METRICS");
    if (setting == nullptr || *setting == '\0')
        return 0;
    address where;
    if (!parse(setting, &where, &server.path)) {
        operator_log(LOG_ERR,
                     "ATTEST_METRICS is \"%s\": metrics are served on a port, on a loopback address with a "
                     "port, or on unix:PATH; there are none now",
                     setting);
        return platform_status_from_errno(EINVAL);
    }
    server.manager = manager;
    if (const int error = listen_at(where)) {
        operator_log(LOG_ERR, "ATTEST_METRICS %s: %s; there are no metrics now", setting,
                     std::strerror(error));
        server.path.clear();
        return platform_status_from_errno(error);
    }
    metrics_registry_enable();
    operator_log(LOG_INFO, "metrics are served on %s", setting);
    return 0;
}

void metrics_stop()
{
    server.connections.clear();
    close_listener();
    if (!server.path.empty())
        remove_socket(server.path);
    server.path.clear();
}
