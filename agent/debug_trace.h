// The agent's debug trace: one buffer, seven flags, and the macro that writes a line.
#pragma once

#include <array>
#include <cstdint>

#include "platform/trace.h"

extern trace_buffer *attest_trc_buf; // "attestation", 1 MiB

extern trace_flag *attest_dbg_flag_root;
extern trace_flag *attest_dbg_flag_api;   // lines of the trace's own set-up and teardown
extern trace_flag *attest_dbg_flag_agent; // all other lines

struct attest_dbg_flag_entry {
    trace_flag **flag;
    char name[16];
};
// In the order of registration; every flag but the first has the first as its parent.
extern const std::array<attest_dbg_flag_entry, 7> attest_dbg_flags;

// Creates the buffer, then the flags. At the first failure it stops and returns that status: without a buffer
// the message INIT is raised and no flag registered; without a flag the later ones are not registered. 0 on
// success.
std::uint32_t attest_dbg_init();

// Destroys the flags in reverse order and closes the buffer; failures are traced.
void attest_dbg_deinit();

// Writes one line that begins with "NAME(): ". `format` is a literal; nothing of the arguments is evaluated
// while the flag is off.
#define ATTEST_TRACE_UNDER(flag, name, format, ...)                                                          \
    do {                                                                                                     \
        if (trace_flag_enabled(flag)) {                                                                      \
            static constinit std::uint32_t site_state = TRACE_SITE_INIT;                                     \
            trace_log(flag, attest_trc_buf, &site_state, "%s(): " format, name __VA_OPT__(, ) __VA_ARGS__);  \
        }                                                                                                    \
    } while (false)

// The common line: under the "agent" flag, named after the function that writes it.
#define attest_trace(format, ...)                                                                            \
    ATTEST_TRACE_UNDER(attest_dbg_flag_agent, __func__, format __VA_OPT__(, ) __VA_ARGS__)

// The same for a step that writes under the name of the operation it belongs to.
#define attest_trace_as(name, format, ...)                                                                   \
    ATTEST_TRACE_UNDER(attest_dbg_flag_agent, name, format __VA_OPT__(, ) __VA_ARGS__)
