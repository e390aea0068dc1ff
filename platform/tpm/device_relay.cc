#include "platform/tpm/device_relay.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "platform/tpm/client_status.h"
#include "platform/tpm/linux_ipc.h"

namespace {

std::atomic<int> relays_running{0};

struct relay {
    unique_fd device;
    unique_fd socket;
};

using message_buffer = std::array<std::uint8_t, IPC_MAX_MESSAGE>;

// Reads one whole message by its size field. 0 at the end of input, after an error and for what is no
// message.
template <class Read>
std::uint32_t read_message(Read read_some, message_buffer &message)
{
    std::uint32_t have = 0;
    for (;;) {
        const std::uint32_t size =
            have < IPC_HEADER_SIZE ? IPC_MAX_MESSAGE : ipc_message_size(message.data());
        if (size < IPC_HEADER_SIZE || size > message.size() || size < have)
            return 0;
        if (size == have && have >= IPC_HEADER_SIZE)
            return have;
        const ssize_t count = read_some(message.data() + have, message.size() - have);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return 0;
        have += static_cast<std::uint32_t>(count);
    }
}

bool write_whole(int fd, const message_buffer &message, std::uint32_t length)
{
    for (std::uint32_t done = 0; done < length;) {
        const ssize_t count = write(fd, message.data() + done, length - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        done += static_cast<std::uint32_t>(count);
    }
    return true;
}

bool send_whole(int fd, const message_buffer &message, std::uint32_t length)
{
    // The peer reads all the time that it waits for a response: a message never fills the socket's buffer.
    return send(fd, message.data(), length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

// A failure of the device closes the socket, which is how the library learns of it.
void *relay_main(void *argument)
{
    {
        const std::unique_ptr<relay> between(static_cast<relay *>(argument));
        const int socket = between->socket.get();
        const int device = between->device.get();
        const auto from_socket = [socket](void *to, std::size_t size) { return recv(socket, to, size, 0); };
        const auto from_device = [device](void *to, std::size_t size) { return read(device, to, size); };
        message_buffer message;
        for (;;) {
            const std::uint32_t command = read_message(from_socket, message);
            if (command == 0 || !write_whole(device, message, command))
                break;
            const std::uint32_t response = read_message(from_device, message);
            if (response == 0 || !send_whole(socket, message, response))
                break;
        }
    }
    --relays_running;
    return nullptr;
}

// The process's signals are for its other threads.
int start_thread(relay *between)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    int error = pthread_sigmask(SIG_SETMASK, &all, &before);
    if (error != 0)
        return error;
    pthread_t thread{};
    error = pthread_create(&thread, nullptr, relay_main, between);
    if (error == 0)
        pthread_detach(thread);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

} // namespace

kov_status device_relay_start(const std::string &path, unique_fd &socket)
{
    auto between = std::make_unique<relay>();
    between->device.reset(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!between->device)
        return kov_status_from_errno(errno);
    struct stat kind {};
    if (fstat(between->device.get(), &kind) != 0 || !S_ISCHR(kind.st_mode))
        return kov_status_from_errno(ENODEV); // commands must not be written over a file
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return kov_status_from_errno(errno);
    unique_fd ours(ends[0]);
    between->socket.reset(ends[1]);
    if (fcntl(ours.get(), F_SETFL, O_NONBLOCK) != 0)
        return kov_status_from_errno(errno);
    if (++relays_running > IPC_MAX_STUCK_RELAYS) {
        --relays_running;
        return KOV_ERR_TIMEOUT;
    }
    const int error = start_thread(between.get());
    if (error != 0) {
        --relays_running;
        return kov_status_from_errno(error);
    }
    static_cast<void>(between.release());
    socket = std::move(ours);
    return KOV_SUCCESS;
}
