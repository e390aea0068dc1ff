#include "tests/tpm/fake_tpm.h"

#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>

#include "tests/tpm/software_tpm.h"

namespace {

constexpr int look_around_ms = 10;

bool readable(int fd)
{
    pollfd watched{fd, POLLIN, 0};
    return poll(&watched, 1, look_around_ms) > 0;
}

} // namespace

fake_tpm::fake_tpm(const std::string &path, answerer answer)
    : answer_(std::move(answer)), listening_(listen_at(path))
{
    if (!listening_)
        throw std::runtime_error("cannot listen at " + path);
    thread_ = std::thread([this] {
        while (!stopping_) {
            if (!readable(listening_.get()))
                continue;
            const unique_fd connection(accept(listening_.get(), nullptr, nullptr));
            serve(connection.get());
        }
    });
}

fake_tpm::~fake_tpm()
{
    stopping_ = true;
    thread_.join();
}

void fake_tpm::serve(int connection) const
{
    for (int number = 0; !stopping_;) {
        if (!readable(connection))
            continue;
        std::uint8_t command[4096];
        const ssize_t length = recv(connection, command, sizeof command, 0);
        if (length <= 0)
            return;
        const fake_answer answer = answer_(number++, {command, static_cast<std::size_t>(length)});
        const std::size_t step = answer.drip.count() > 0 ? 1 : answer.bytes.size();
        for (std::size_t sent = 0; sent < answer.bytes.size() && !stopping_; sent += step) {
            if (send(connection, answer.bytes.data() + sent, step, MSG_NOSIGNAL) < 0)
                return;
            std::this_thread::sleep_for(answer.drip);
        }
        if (answer.hang_up)
            return;
    }
}

std::vector<std::uint8_t> tpm_response(std::uint32_t code, const std::vector<std::uint8_t> &parameters)
{
    const auto size = static_cast<std::uint32_t>(10 + parameters.size());
    std::vector<std::uint8_t> response{0x80, 0x01};
    for (const std::uint32_t word : {size, code}) {
        for (int shift = 24; shift >= 0; shift -= 8)
            response.push_back(static_cast<std::uint8_t>(word >> shift));
    }
    response.insert(response.end(), parameters.begin(), parameters.end());
    return response;
}

std::vector<std::uint8_t> clock_response()
{
    return tpm_response(0, std::vector<std::uint8_t>(25, 1));
}
