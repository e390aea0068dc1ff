// SIGTERM: who sent it is traced, then it ends the process.
#pragma once

#include <csignal>
#include <cstddef>
#include <span>
#include <sys/types.h>

// Installs at_agent_signal_handler for SIGTERM; a reader of stderr that goes away (SIGPIPE) ends nothing.
void at_install_signal_handlers();

// Traces number and sender and lets the signal's default action end the process. Async-signal-safe.
void at_agent_signal_handler(int signal_number, siginfo_t *info, void *context);

// Writes the program name of process `pid` into `name`, NUL-terminated and cut to fit: the start of its
// command line, or, when that cannot be opened, the path "/proc/PID/cmdline". `name` is not empty.
// Async-signal-safe.
void at_get_process_name(pid_t pid, std::span<char> name);
