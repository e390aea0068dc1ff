// One connection to the TPM: a channel of the IPC callbacks with an ESYS context on it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <tss2/tss2_esys.h>

#include "platform/tpm/algorithms.h"
#include "platform/tpm/callback_tcti.h"
#include "platform/trust_anchor_client.h"

struct esys_deleter {
    void operator()(void *memory) const noexcept { Esys_Free(memory); }
};
template <class T>
using esys_ptr = std::unique_ptr<T, esys_deleter>;

struct tpm_connection {
    callback_tcti tcti{};
    ESYS_CONTEXT *esys = nullptr;
    // Of the TPM's last start, as ReadClock tells them.
    std::uint32_t reset_count = 0;
    std::uint32_t restart_count = 0;

    tpm_connection() = default;
    tpm_connection(const tpm_connection &) = delete;
    tpm_connection &operator=(const tpm_connection &) = delete;
    ~tpm_connection();
};

// Opens a channel to the device and sees that a TPM answers; a TPM that waits for TPM2_Startup gets it. Keys
// and sequences that an earlier process left loaded are flushed.
kov_status tpm_connection_open(const kov_ipc_callbacks &ipc, std::uint64_t device,
                               std::unique_ptr<tpm_connection> &connection);

// Asks whether the TPM still answers. *was_reset: it has started anew since the last time it was asked, so
// that nothing volatile that is known about it holds any more.
kov_status tpm_connection_check(tpm_connection &connection, bool *was_reset);

// The status of an ESYS call: the transport's failure rather than ESYS's account of it. A code that says that
// the response made no sense breaks the connection.
kov_status tpm_connection_result(tpm_connection &connection, TSS2_RC code);

// False once the transport has failed; nothing is sent any more then.
bool tpm_connection_whole(const tpm_connection &connection);

// A selection of the PCRs in `mask` in one bank.
TPMS_PCR_SELECTION pcr_selection(const tpm_algorithm &algorithm, std::uint32_t mask);
inline constexpr std::uint32_t TPM_PCR_COUNT = 24; // PC client platforms

// The handles of the kind of `first` that the TPM has, from `first` on, as many as one answer holds.
TSS2_RC tpm_connection_handles(tpm_connection &connection, std::uint32_t first,
                               std::vector<std::uint32_t> &handles);

// The banks with all 24 PCRs among the four algorithms, in their order.
kov_status tpm_allocated_banks(tpm_connection &connection, std::vector<const tpm_algorithm *> &banks);
