// The TSS's transport over the registered IPC callbacks.
#pragma once

#include <array>
#include <cstdint>

#include <tss2/tss2_tcti.h>

#include "platform/tpm/linux_ipc.h"
#include "platform/trust_anchor_client.h"

struct kov_ipc_callbacks {
    kov_ipc_init_callback init;
    kov_ipc_cleanup_callback cleanup;
    kov_ipc_open_callback open;
    kov_ipc_close_callback close;
    kov_ipc_send_callback send;
    kov_ipc_receive_callback receive;
};

// What the TSS takes for a TSS2_TCTI_CONTEXT: `common` comes first. Whatever the channel delivers is looked
// at before the TSS sees it; the first failure stays, and nothing is sent or received after it.
struct callback_tcti {
    TSS2_TCTI_CONTEXT_COMMON_V2 common;
    kov_ipc_callbacks ipc;
    void *channel;      // not owned
    kov_status failure; // KOV_SUCCESS while the transport is whole
    bool awaiting;      // a command is out, its response not yet in
    std::uint32_t length;
    std::array<std::uint8_t, IPC_MAX_MESSAGE> response; // the first `length` bytes, until they are fetched
};

void callback_tcti_init(callback_tcti &tcti, const kov_ipc_callbacks &ipc, void *channel);
