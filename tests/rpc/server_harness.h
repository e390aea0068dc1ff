// A server on a loop of its own thread, with callbacks that write down what they are told and then do what
// the test wants. Anything that touches the server runs on the loop through on_loop.
#pragma once

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <thread>
#include <vector>

#include "platform/remote_attestation_api.h"
#include "platform/rpc/limits.h"

struct told {
    std::string what; // "connect", "disconnect", "error", "resume", or the operation
    remote_attestation_api_client client;
    std::uint32_t number; // the request id, or the status
};

class server_harness {
public:
    rpc_limits limits;
    std::string instance = "rat_agent_test";
    std::uint32_t address = 0x7F000001;
    // What a callback does after it was written down; on the loop.
    std::function<void(remote_attestation_api_client)> on_connect, on_disconnect, on_error, on_resume;
    template <class Request>
    using operation = std::function<void(remote_attestation_api_client, const Request &, std::uint32_t)>;
    operation<get_certificate_request> on_certificate;
    operation<attest_pcr_request> on_pcrs;
    operation<get_platform_boot_integrity_event_logs_request> on_boot_log;
    operation<get_platform_hw_integrity_request> on_hw;
    operation<get_platform_ima_event_logs_request> on_ima, on_stream;

    server_harness();
    ~server_harness();

    // Creates a server with these limits and callbacks and activates it on a free port. The activation's
    // status.
    std::uint32_t start();
    std::uint32_t start_with(const remote_attestation_api_activation &parameters);
    std::string target() const { return "127.0.0.1:" + std::to_string(port); }
    void deactivate();

    template <class Work>
    auto on_loop(Work work) -> decltype(work())
    {
        std::packaged_task<decltype(work())()> task(std::move(work));
        levm_post(
            manager, [](void *context) { (*static_cast<decltype(task) *>(context))(); }, &task);
        return task.get_future().get();
    }

    // Waits until the condition holds, looking again whenever a callback was called and now and then; false
    // after a minute, which no machine is slow enough for.
    bool wait(const std::function<bool()> &condition);
    std::size_t count(const std::string &what) const;
    bool wait_count(const std::string &what, std::size_t n);
    std::vector<told> all() const;
    told last(const std::string &what) const;
    // "connect stream error disconnect": what was told, in order.
    std::string order() const;

    void tell(const char *what, remote_attestation_api_client client, std::uint32_t number);

    std::uint16_t port = 0;
    remote_attestation_api_server *server = nullptr;
    levm *manager = nullptr;

private:
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::vector<told> told_;
    std::thread loop_;
};

// A stream message of about `size` bytes, with `number` as its uptime; the bytes are shared, nothing to
// release.
struct stream_message {
    stream_message(std::uint64_t number, std::size_t size);
    NodeIMAData data{};
    IMA_EVENT event{};
};
// Answers with a log of that one message.
std::int32_t send_ima(remote_attestation_api_client client, std::uint32_t request_id, std::uint64_t number,
                      std::size_t size);
std::int32_t send_stream(remote_attestation_api_client client, std::uint32_t request_id, std::uint64_t number,
                         std::size_t size, bool last);

sockaddr_in loopback(std::uint16_t port);
// A TCP connection that says nothing; -1 on failure. The caller closes it.
int connect_silently(std::uint16_t port);
// Whether the peer ends the connection within a minute.
bool peer_closes(int fd);
