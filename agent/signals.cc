#include "agent/signals.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>

#include "agent/debug_trace.h"
#include "platform/owners.h"

void at_get_process_name(pid_t pid, std::span<char> name)
{
    // With an integer alone glibc's snprintf neither allocates nor locks.
    std::snprintf(name.data(), name.size(), "/proc/%d/cmdline", pid);
    unique_fd file(open(name.data(), O_RDONLY | O_CLOEXEC));
    if (!file)
        return;
    std::size_t room = name.size() - 1;
    ssize_t length = 0;
    do {
        length = read(file.get(), name.data(), room);
    } while (length < 0 && errno == EINTR);
    if (length > 0 && name[length - 1] == '\n')
        name[length - 1] = '\0';
}

void at_agent_signal_handler(int signal_number, siginfo_t *info, void *)
{
    std::array<char, 200> name = {};
    attest_trace("Received signal %d\n", signal_number);
    at_get_process_name(info->si_pid, name);
    attest_trace("Signal originated from process pid=%lu and name=%s\n",
                 static_cast<unsigned long>(info->si_pid), name.data());
    std::signal(signal_number, SIG_DFL);
    std::raise(signal_number); // takes effect when this handler returns, for it is blocked here
}

void at_install_signal_handlers()
{
    struct sigaction action = {};
    action.sa_sigaction = at_agent_signal_handler;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}
