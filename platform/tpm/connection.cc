#include "platform/tpm/connection.h"

#include <algorithm>

#include <tss2/tss2_sys.h>

#include "platform/tpm/client_status.h"

namespace {

TSS2_RC read_clock(tpm_connection &connection, TPMS_TIME_INFO &time)
{
    TPMS_TIME_INFO *answer = nullptr;
    const TSS2_RC code = Esys_ReadClock(connection.esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &answer);
    const esys_ptr<TPMS_TIME_INFO> owned(answer);
    if (code == TSS2_RC_SUCCESS)
        time = *owned;
    return code;
}

// Codes of the TSS's own layers that memory or the request could not explain: the response was not one.
bool blames_response(TSS2_RC code)
{
    const TSS2_RC layer = code & TSS2_RC_LAYER_MASK;
    const TSS2_RC base = code & ~TSS2_RC_LAYER_MASK;
    const bool own = layer == TSS2_ESAPI_RC_LAYER || layer == TSS2_SYS_RC_LAYER ||
                     layer == TSS2_MU_RC_LAYER || layer == TSS2_TCTI_RC_LAYER;
    return own && base != TSS2_BASE_RC_MEMORY && base != TSS2_BASE_RC_BAD_VALUE &&
           base != TSS2_BASE_RC_BAD_REFERENCE && base != TSS2_BASE_RC_BAD_TR;
}

// A TPM that serves one connection at a time holds, at its begin, only what a process that died has left:
// keys and sequences that take up its few slots. Through a resource manager there is nothing to see.
TSS2_RC flush_leftovers(tpm_connection &connection)
{
    constexpr std::size_t slots = 16; // more than a TPM has; one that names more costs no more time
    std::vector<std::uint32_t> loaded;
    TSS2_RC code = tpm_connection_handles(connection, TPM2_TRANSIENT_FIRST, loaded);
    loaded.resize(std::min(loaded.size(), slots));
    // By its number: ESYS would ask for the public area first, and a sequence has none.
    TSS2_SYS_CONTEXT *commands = nullptr;
    if (code == TSS2_RC_SUCCESS)
        code = Esys_GetSysContext(connection.esys, &commands);
    for (std::size_t i = 0; i < loaded.size() && code == TSS2_RC_SUCCESS; ++i)
        code = Tss2_Sys_FlushContext(commands, loaded[i]);
    return code;
}

} // namespace

tpm_connection::~tpm_connection()
{
    Esys_Finalize(&esys);
    if (tcti.channel != nullptr)
        tcti.ipc.close(tcti.channel);
}

bool tpm_connection_whole(const tpm_connection &connection)
{
    return connection.tcti.failure == KOV_SUCCESS;
}

kov_status tpm_connection_result(tpm_connection &connection, TSS2_RC code)
{
    if (code == TSS2_RC_SUCCESS)
        return KOV_SUCCESS;
    if (tpm_connection_whole(connection) && blames_response(code))
        connection.tcti.failure = KOV_ERR_BAD_RESPONSE;
    return tpm_connection_whole(connection) ? kov_status_from_tss(code) : connection.tcti.failure;
}

kov_status tpm_connection_check(tpm_connection &connection, bool *was_reset)
{
    *was_reset = false;
    TPMS_TIME_INFO time{};
    TSS2_RC code = read_clock(connection, time);
    if (code == TPM2_RC_INITIALIZE) {
        // Firmware has not started it, or it was reset behind the system's back. Its PCRs are zero then and
        // no log will match them: started, it can at least say so in a quote.
        code = Esys_Startup(connection.esys, TPM2_SU_CLEAR);
        if (code == TSS2_RC_SUCCESS || code == TPM2_RC_INITIALIZE)
            code = read_clock(connection, time);
    }
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(connection, code);
    if (time.clockInfo.safe != TPM2_YES && time.clockInfo.safe != TPM2_NO) // the last byte: it was cut short
        return connection.tcti.failure = KOV_ERR_BAD_RESPONSE;
    *was_reset = time.clockInfo.resetCount != connection.reset_count ||
                 time.clockInfo.restartCount != connection.restart_count;
    connection.reset_count = time.clockInfo.resetCount;
    connection.restart_count = time.clockInfo.restartCount;
    return KOV_SUCCESS;
}

kov_status tpm_connection_open(const kov_ipc_callbacks &ipc, std::uint64_t device,
                               std::unique_ptr<tpm_connection> &connection)
{
    connection.reset();
    auto opened = std::make_unique<tpm_connection>();
    callback_tcti_init(opened->tcti, ipc, nullptr);
    const kov_status status = ipc.open(device, &opened->tcti.channel);
    if (status != KOV_SUCCESS)
        return status;
    if (opened->tcti.channel == nullptr)
        return KOV_ERR_INVALID_PARAM;
    auto *tcti = reinterpret_cast<TSS2_TCTI_CONTEXT *>(&opened->tcti);
    const TSS2_RC code = Esys_Initialize(&opened->esys, tcti, nullptr);
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(*opened, code);
    bool was_reset = false;
    kov_status answers = tpm_connection_check(*opened, &was_reset);
    if (answers == KOV_SUCCESS)
        answers = tpm_connection_result(*opened, flush_leftovers(*opened));
    if (answers == KOV_SUCCESS)
        connection = std::move(opened);
    return answers;
}

TSS2_RC tpm_connection_handles(tpm_connection &connection, std::uint32_t first,
                               std::vector<std::uint32_t> &handles)
{
    handles.clear();
    TPMI_YES_NO more = TPM2_NO;
    TPMS_CAPABILITY_DATA *answer = nullptr;
    const TSS2_RC code = Esys_GetCapability(connection.esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                            TPM2_CAP_HANDLES, first, TPM2_MAX_CAP_HANDLES, &more, &answer);
    const esys_ptr<TPMS_CAPABILITY_DATA> owned(answer);
    if (code == TSS2_RC_SUCCESS) {
        const TPML_HANDLE &list = owned->data.handles;
        handles.assign(list.handle, list.handle + std::min<std::size_t>(list.count, TPM2_MAX_CAP_HANDLES));
    }
    return code;
}

TPMS_PCR_SELECTION pcr_selection(const tpm_algorithm &algorithm, std::uint32_t mask)
{
    TPMS_PCR_SELECTION selection{};
    selection.hash = algorithm.id;
    selection.sizeofSelect = TPM_PCR_COUNT / 8;
    for (std::size_t i = 0; i < selection.sizeofSelect; ++i)
        selection.pcrSelect[i] = static_cast<BYTE>(mask >> (8 * i));
    return selection;
}

kov_status tpm_allocated_banks(tpm_connection &connection, std::vector<const tpm_algorithm *> &banks)
{
    banks.clear();
    TPMI_YES_NO more = TPM2_NO;
    TPMS_CAPABILITY_DATA *answer = nullptr;
    const TSS2_RC code = Esys_GetCapability(connection.esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                            TPM2_CAP_PCRS, 0, 1, &more, &answer);
    const esys_ptr<TPMS_CAPABILITY_DATA> owned(answer);
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(connection, code);
    const TPML_PCR_SELECTION &pcrs = owned->data.assignedPCR;
    for (const tpm_algorithm &algorithm : tpm_algorithms) {
        const auto *end = pcrs.pcrSelections + std::min<std::size_t>(pcrs.count, TPM2_NUM_PCR_BANKS);
        const bool allocated = std::any_of(pcrs.pcrSelections, end, [&](const TPMS_PCR_SELECTION &bank) {
            return bank.hash == algorithm.id && bank.sizeofSelect >= 3 && bank.pcrSelect[0] == 0xFF &&
                   bank.pcrSelect[1] == 0xFF && bank.pcrSelect[2] == 0xFF;
        });
        if (allocated)
            banks.push_back(&algorithm);
    }
    return KOV_SUCCESS;
}
