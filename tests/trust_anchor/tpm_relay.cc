#include "tests/trust_anchor/tpm_relay.h"

#include <sys/socket.h>
#include <sys/un.h>

#include "platform/tpm/linux_ipc.h"

namespace {

constexpr std::size_t code_offset = 6;

std::uint32_t code_of(std::span<const std::uint8_t> command)
{
    std::uint32_t code = 0;
    for (std::size_t i = code_offset; i < IPC_HEADER_SIZE && i < command.size(); ++i)
        code = code << 8 | command[i];
    return code;
}

unique_fd connect_to_socket(const std::string &path)
{
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fd.reset();
    return fd;
}

} // namespace

tpm_relay::tpm_relay(const software_tpm &tpm)
    : tpm_path_(tpm.directory() + "/socket"),
      server_(directory_.path() + "/relay",
              [this](int number, std::span<const std::uint8_t> command) { return answer(number, command); })
{
}

void tpm_relay::fail(std::uint32_t command_code, int after, fake_answer answer)
{
    const std::lock_guard lock(mutex_);
    fault_ = {command_code, after, std::move(answer)};
}

void tpm_relay::heal()
{
    const std::lock_guard lock(mutex_);
    fault_.reset();
}

void tpm_relay::disconnect()
{
    const std::lock_guard lock(mutex_);
    tpm_.reset();
}

fake_answer tpm_relay::answer(int number, std::span<const std::uint8_t> command)
{
    const std::lock_guard lock(mutex_);
    if (fault_ && fault_->command_code == code_of(command) && fault_->after-- <= 0)
        return fault_->answer;
    if (number == 0) {
        tpm_.reset(); // it serves one connection at a time
        tpm_ = connect_to_socket(tpm_path_);
    }
    std::vector<std::uint8_t> response(IPC_MAX_MESSAGE);
    std::size_t have = 0;
    if (send(tpm_.get(), command.data(), command.size(), MSG_NOSIGNAL) < 0)
        return {{}, true};
    while (have < IPC_HEADER_SIZE || have < ipc_message_size(response.data())) {
        const ssize_t count = recv(tpm_.get(), response.data() + have, response.size() - have, 0);
        if (count <= 0)
            return {{}, true};
        have += static_cast<std::size_t>(count);
    }
    response.resize(have);
    return {response};
}
