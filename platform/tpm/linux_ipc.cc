#include "platform/tpm/linux_ipc.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

#include "platform/owners.h"
#include "platform/status.h"
#include "platform/tpm/client_status.h"
#include "platform/tpm/device_relay.h"
#include "platform/trust_anchor_client.h"

namespace {

using ipc_clock = std::chrono::steady_clock;

constexpr std::uint64_t ONLY_DEVICE = 1;
constexpr std::string_view DEFAULT_SETTING = "device:/dev/tpmrm0";

std::chrono::milliseconds command_bound = IPC_COMMAND_BOUND;

// A stream socket to the TPM: of a software TPM, or of the thread that sits before a device.
struct linux_channel {
    unique_fd socket;
    ipc_clock::time_point deadline; // of the command under way
};

// Waits until the socket has one of `events`, no longer than the command's deadline.
kov_status wait_for(const linux_channel &channel, short events)
{
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(channel.deadline - ipc_clock::now()).count();
        if (left <= 0)
            return KOV_ERR_TIMEOUT;
        pollfd watched{channel.socket.get(), events, 0};
        const int ready = poll(&watched, 1, static_cast<int>(left));
        if (ready > 0)
            return KOV_SUCCESS;
        if (ready < 0 && errno != EINTR)
            return kov_status_from_errno(errno);
    }
}

// What a failed send or recv means: KOV_SUCCESS when it is to be tried again.
kov_status after_io_error(const linux_channel &channel, short events)
{
    if (errno == EINTR)
        return KOV_SUCCESS;
    if (errno == EAGAIN || errno == EWOULDBLOCK)
        return wait_for(channel, events);
    return errno == EPIPE || errno == ECONNRESET ? KOV_ERR_CLOSED : kov_status_from_errno(errno);
}

kov_status connect_socket(const std::string &path, unique_fd &connected)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return KOV_ERR_SETTING;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unique_fd socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket_fd)
        return kov_status_from_errno(errno);
    if (connect(socket_fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return kov_status_from_errno(errno);
    connected = std::move(socket_fd);
    return KOV_SUCCESS;
}

} // namespace

bool tpm_address_parse(const char *setting, tpm_address &address)
{
    constexpr std::string_view device = "device:";
    constexpr std::string_view swtpm = "swtpm:path=";
    const std::string_view text = setting == nullptr ? DEFAULT_SETTING : setting;
    address.is_device = text.starts_with(device);
    if (!address.is_device && !text.starts_with(swtpm))
        return false;
    address.path = text.substr(address.is_device ? device.size() : swtpm.size());
    return !address.path.empty();
}

std::uint32_t ipc_message_size(const std::uint8_t *header)
{
    return std::uint32_t{header[2]} << 24 | std::uint32_t{header[3]} << 16 | std::uint32_t{header[4]} << 8 |
           header[5];
}

void linux_ipc_set_command_bound(std::chrono::milliseconds bound)
{
    command_bound = bound;
}

std::uint32_t platform_get_kov_device_info(std::uint64_t *device_handle, std::uint64_t *device_info)
{
    if (device_handle == nullptr || device_info == nullptr)
        return platform_status_from_errno(EINVAL);
    *device_handle = *device_info = 0;
    tpm_address address;
    if (!tpm_address_parse(std::getenv("ATTEST_TPM"), address))
        return platform_status_from_errno(EINVAL);
    *device_handle = ONLY_DEVICE;
    *device_info = address.is_device ? KOV_DEVICE_INFO_DEVICE : KOV_DEVICE_INFO_SWTPM;
    return 0;
}

kov_status kov_linux_ipc_init()
{
    return KOV_SUCCESS;
}

void kov_linux_ipc_cleanup() {}

kov_status kov_linux_ipc_open(std::uint64_t device, void **channel)
{
    if (channel == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *channel = nullptr;
    return guarded([&] {
        tpm_address address;
        if (device != ONLY_DEVICE)
            return kov_status{KOV_ERR_INVALID_PARAM};
        if (!tpm_address_parse(std::getenv("ATTEST_TPM"), address))
            return kov_status{KOV_ERR_SETTING};
        auto opened = std::make_unique<linux_channel>();
        const kov_status status = address.is_device ? device_relay_start(address.path, opened->socket)
                                                    : connect_socket(address.path, opened->socket);
        if (status == KOV_SUCCESS)
            *channel = opened.release();
        return status;
    });
}

void kov_linux_ipc_close(void *channel)
{
    delete static_cast<linux_channel *>(channel);
}

kov_status kov_linux_ipc_send(void *channel, const std::uint8_t *command, std::uint32_t length)
{
    if (channel == nullptr || command == nullptr)
        return KOV_ERR_INVALID_PARAM;
    auto &to = *static_cast<linux_channel *>(channel);
    to.deadline = ipc_clock::now() + command_bound;
    for (std::uint32_t sent = 0; sent < length;) {
        const ssize_t count = send(to.socket.get(), command + sent, length - sent, MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<std::uint32_t>(count);
            continue;
        }
        const kov_status status = after_io_error(to, POLLOUT);
        if (status != KOV_SUCCESS)
            return status;
    }
    return KOV_SUCCESS;
}

kov_status kov_linux_ipc_receive(void *channel, std::uint8_t *response, std::uint32_t capacity,
                                 std::uint32_t *length)
{
    if (channel == nullptr || response == nullptr || length == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *length = 0;
    const auto &from = *static_cast<linux_channel *>(channel);
    const std::uint32_t bound = std::min(capacity, IPC_MAX_MESSAGE);
    for (std::uint32_t have = 0;;) {
        if (have >= IPC_HEADER_SIZE) {
            const std::uint32_t size = ipc_message_size(response);
            if (size < IPC_HEADER_SIZE || size > bound || size < have)
                return KOV_ERR_BAD_RESPONSE;
            if (size == have) {
                *length = have;
                return KOV_SUCCESS;
            }
        }
        // Before the deadline is looked at, so that a TPM which drips bytes gains nothing by it.
        kov_status status = wait_for(from, POLLIN);
        if (status != KOV_SUCCESS)
            return status;
        const ssize_t count = recv(from.socket.get(), response + have, bound - have, 0);
        if (count == 0)
            return bound == have ? KOV_ERR_BAD_RESPONSE : KOV_ERR_CLOSED;
        if (count < 0) {
            status = after_io_error(from, POLLIN);
            if (status != KOV_SUCCESS)
                return status;
            continue;
        }
        have += static_cast<std::uint32_t>(count);
    }
}

void *kov_linux_mem_alloc(std::size_t size)
{
    return std::malloc(size);
}

void kov_linux_mem_free(void *memory)
{
    std::free(memory);
}
