#include "agent/debug_trace.h"

#include "agent/status.h"
#include "agent/system_messages.h"

trace_buffer *attest_trc_buf;

trace_flag *attest_dbg_flag_root;
trace_flag *attest_dbg_flag_api;
trace_flag *attest_dbg_flag_agent;

namespace {

constexpr std::size_t TRACE_BUFFER_SIZE = 0x100000;

// Registered with the rest, so that a line may be put under them without a change for operators.
trace_flag *flag_cli;
trace_flag *flag_app;
trace_flag *flag_ipc;
trace_flag *flag_sign;

} // namespace

const std::array<attest_dbg_flag_entry, 7> attest_dbg_flags = {{
    {&attest_dbg_flag_root, "attest"},
    {&attest_dbg_flag_api, "api"},
    {&flag_cli, "cli"},
    {&attest_dbg_flag_agent, "agent"},
    {&flag_app, "app"},
    {&flag_ipc, "ipc"},
    {&flag_sign, "sign"},
}};

std::uint32_t attest_dbg_init()
{
    std::uint32_t status = trace_buffer_init(&attest_trc_buf, "attestation", 0, TRACE_BUFFER_SIZE);
    if (status != 0) {
        raise_system_message(msg_rec_attestation_agent_init, "trace buffer");
        return status;
    }
    for (const attest_dbg_flag_entry &entry : attest_dbg_flags) {
        trace_flag *parent = entry.flag == &attest_dbg_flag_root ? nullptr : attest_dbg_flag_root;
        status = trace_flag_init(entry.flag, entry.name, parent, 0, 0);
        if (status != 0) {
            ATTEST_TRACE_UNDER(attest_dbg_flag_api, __func__, "failed to init %s debug flag, rc=%d: %s",
                               entry.name, static_cast<int>(status), status_strerror(status));
            return status;
        }
    }
    return 0;
}

void attest_dbg_deinit()
{
    for (auto entry = attest_dbg_flags.rbegin(); entry != attest_dbg_flags.rend(); ++entry) {
        if (std::uint32_t status = trace_flag_destroy(entry->flag)) {
            ATTEST_TRACE_UNDER(attest_dbg_flag_api, __func__, "failed to destroy %s debug flag, rc=%d: %s",
                               entry->name, static_cast<int>(status), status_strerror(status));
        }
    }
    if (std::uint32_t status = trace_buffer_close(&attest_trc_buf)) {
        ATTEST_TRACE_UNDER(attest_dbg_flag_api, __func__, "failed to close trace buffer, rc=%d: %s",
                           static_cast<int>(status), status_strerror(status));
    }
}
