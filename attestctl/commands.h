// The commands: each reads the settings, asks, and prints. Data goes to the standard output, words to the
// error output, one line for what went wrong.
#pragma once

#include "attestctl/client.h"
#include "attestctl/options.h"

inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_NO_EVIDENCE = 1; // missing, or it does not verify
inline constexpr int EXIT_USAGE =
    2; // also: no connection, a call that failed, an output that cannot be written
inline constexpr int EXIT_INTERRUPTED = 130;

// They return the exit status.
int run_certificate(const settings &chosen, client &c);
int run_pcrs(const settings &chosen, client &c);
int run_boot_log(const settings &chosen, client &c);
int run_ima_log(const settings &chosen, client &c);
int run_hw_integrity(const settings &chosen, client &c);
int run_attest(const settings &chosen, client &c);
