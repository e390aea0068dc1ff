#include "tests/rpc/server_harness.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/owners.h"

namespace {

constexpr std::chrono::seconds LONG_ENOUGH{60};

server_harness *current = nullptr;

template <class... Arguments>
void run(const std::function<void(Arguments...)> &action, std::type_identity_t<Arguments>... arguments)
{
    if (action)
        action(arguments...);
}

constexpr char CERTIFICATE[] = "certificate", PCRS[] = "pcrs", BOOT_LOG[] = "boot_log", HW[] = "hw",
               IMA[] = "ima", STREAM[] = "stream";

template <const char *Operation, auto Action, class Request>
void on_request(remote_attestation_api_client client, const Request *request, std::uint32_t id)
{
    current->tell(Operation, client, id);
    run(current->*Action, client, *request, id);
}

void set_callbacks(remote_attestation_api_server *server)
{
    remote_attestation_api_server_set_connect_callback(server, [](auto client, void *, auto status) {
        current->tell("connect", client, status);
        run(current->on_connect, client);
    });
    remote_attestation_api_server_set_disconnect_callback(server, [](auto client, auto status) {
        current->tell("disconnect", client, status);
        run(current->on_disconnect, client);
    });
    remote_attestation_api_server_set_error_callback(server, [](auto client, void *, auto error) {
        current->tell("error", client, error);
        run(current->on_error, client);
    });
    remote_attestation_api_server_set_flow_resume_callback(server, [](auto client) {
        current->tell("resume", client, 0);
        run(current->on_resume, client);
    });
    remote_attestation_api_server_set_get_certificate_callback(
        server, on_request<CERTIFICATE, &server_harness::on_certificate>);
    remote_attestation_api_server_set_attest_pcrs_callback(server,
                                                           on_request<PCRS, &server_harness::on_pcrs>);
    remote_attestation_api_server_set_get_platform_boot_integrity_event_logs_callback(
        server, on_request<BOOT_LOG, &server_harness::on_boot_log>);
    remote_attestation_api_server_set_get_platform_hw_integrity_callback(
        server, on_request<HW, &server_harness::on_hw>);
    remote_attestation_api_server_set_get_platform_ima_event_logs_callback(
        server, on_request<IMA, &server_harness::on_ima>);
    remote_attestation_api_server_set_stream_ima_event_logs_callback(
        server, on_request<STREAM, &server_harness::on_stream>);
}

} // namespace

server_harness::server_harness() : manager(levm_create("levm", 0)), loop_([this] { levm_block(manager); })
{
    current = this;
}

server_harness::~server_harness()
{
    if (server != nullptr)
        on_loop([this] { return remote_attestation_api_server_handle_destroy(server); });
    levm_stop(manager);
    loop_.join();
    levm_destroy(manager);
    current = nullptr;
}

std::uint32_t server_harness::start()
{
    constexpr auto both =
        remote_attestation_api_activation::has_address | remote_attestation_api_activation::has_port;
    return start_with({both, {address, 0}});
}

std::uint32_t server_harness::start_with(const remote_attestation_api_activation &parameters)
{
    return on_loop([&] {
        if (server == nullptr && remote_attestation_api_server_handle_create(&server, manager, 0) == 0) {
            set_callbacks(server);
            remote_attestation_api_server_set_service_instance(server, instance.c_str());
        }
        rpc_server_set_limits(server, limits);
        const std::uint32_t status = remote_attestation_api_server_activate(server, &parameters);
        port = static_cast<std::uint16_t>(rpc_server_port(server));
        return status;
    });
}

void server_harness::deactivate()
{
    on_loop([this] { return remote_attestation_api_server_deactivate(server); });
}

void server_harness::tell(const char *what, remote_attestation_api_client client, std::uint32_t number)
{
    const std::lock_guard guard(lock_);
    told_.push_back({what, client, number});
    changed_.notify_all();
}

std::vector<told> server_harness::all() const
{
    const std::lock_guard guard(lock_);
    return told_;
}

std::size_t server_harness::count(const std::string &what) const
{
    const auto events = all();
    return static_cast<std::size_t>(
        std::count_if(events.begin(), events.end(), [&](const told &t) { return t.what == what; }));
}

told server_harness::last(const std::string &what) const
{
    const auto events = all();
    const auto found =
        std::find_if(events.rbegin(), events.rend(), [&](const told &t) { return t.what == what; });
    return found == events.rend() ? told{} : *found;
}

std::string server_harness::order() const
{
    std::string order;
    for (const told &t : all())
        order += (order.empty() ? "" : " ") + t.what;
    return order;
}

bool server_harness::wait(const std::function<bool()> &condition)
{
    const auto until = std::chrono::steady_clock::now() + LONG_ENOUGH;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, std::chrono::milliseconds(5));
    }
    return true;
}

bool server_harness::wait_count(const std::string &what, std::size_t n)
{
    return wait([&] { return count(what) >= n; });
}

stream_message::stream_message(std::uint64_t number, std::size_t size)
{
    static std::vector<std::uint8_t> bytes(std::size_t{64} << 20, 0xA5);
    event.present = IMA_EVENT::has_digest;
    event.digest = {bytes.data(), size};
    data.present = NodeIMAData::has_uptime | NodeIMAData::has_events;
    data.uptime = number;
    data.events = {&event, 1};
}

std::int32_t send_ima(remote_attestation_api_client client, std::uint32_t request_id, std::uint64_t number,
                      std::size_t size)
{
    stream_message record(number, size);
    const get_platform_ima_event_logs_response response{1, {&record.data, 1}, {}, 0};
    return remote_attestation_api_get_platform_ima_event_logs_Resp(client, &response, 1, 0, request_id);
}

std::int32_t send_stream(remote_attestation_api_client client, std::uint32_t request_id, std::uint64_t number,
                         std::size_t size, bool last)
{
    const stream_message message(number, size);
    return remote_attestation_api_stream_ima_event_logs_Resp(client, &message.data, last ? 1 : 0, 0,
                                                             request_id);
}

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

int connect_silently(std::uint16_t port)
{
    unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(port);
    return connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ? fd.release() : -1;
}

bool peer_closes(int fd)
{
    const auto until = std::chrono::steady_clock::now() + LONG_ENOUGH;
    while (std::chrono::steady_clock::now() < until) {
        pollfd watched{fd, POLLIN, 0};
        char ignored[4096];
        if (poll(&watched, 1, 1000) == 1 && recv(fd, ignored, sizeof ignored, 0) <= 0)
            return true;
    }
    return false;
}
