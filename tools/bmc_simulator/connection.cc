#include "tools/bmc_simulator/connection.h"

#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr int STALL_MS = 120000;

} // namespace

void reset_connection(int connection)
{
    // Dissolving the association of a connected TCP socket sends the reset that closing it would not.
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    (void)connect(connection, &nobody, sizeof nobody);
}

void stall_connection(int connection)
{
    pollfd waiting{connection, POLLRDHUP, 0};
    poll(&waiting, 1, STALL_MS);
    reset_connection(connection);
}
