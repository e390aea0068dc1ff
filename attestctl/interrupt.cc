#include "attestctl/interrupt.h"

#include <csignal>

#include <signal.h>

namespace {

volatile std::sig_atomic_t seen = 0;

void note_interrupt(int)
{
    seen = 1;
}

} // namespace

void watch_for_interrupt()
{
    struct sigaction action {};
    action.sa_handler = note_interrupt;
    // Output that is being written is not torn by the first signal, and the second finds the default action.
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
}

bool interrupted()
{
    return seen != 0;
}
