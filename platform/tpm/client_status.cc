#include "platform/tpm/client_status.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include <tss2/tss2_rc.h>
#include <tss2/tss2_tpm2_types.h>

#include "platform/metrics.h"

namespace {

struct own_text {
    kov_status status;
    const char *text;
};
constexpr own_text OWN_TEXTS[] = {
    {KOV_SUCCESS, "success"},
    {KOV_ERR_INVALID_PARAM, "invalid argument to the trust-anchor client"},
    {KOV_ERR_NO_MEMORY, "out of memory"},
    {KOV_ERR_NO_CALLBACKS, "IPC or memory callbacks are not registered"},
    {KOV_ERR_SETTING, "ATTEST_TPM is neither device:PATH nor swtpm:path=SOCKET"},
    {KOV_ERR_LOGIN, "login context refused"},
    {KOV_ERR_TIMEOUT, "the TPM does not answer"},
    {KOV_ERR_CLOSED, "the TPM closed the connection"},
    {KOV_ERR_BAD_RESPONSE, "the answer is not a TPM 2.0 response"},
    {KOV_ERR_NOT_PROVISIONED, "the trust anchor is not provisioned"},
    {KOV_ERR_MANIFEST, "the trust-anchor manifest is damaged"},
    {KOV_ERR_NO_KEY, "no such key"},
    {KOV_ERR_NO_OBJECT, "no such object"},
    {KOV_ERR_OBJECT_SIZE, "object too large"},
    {KOV_ERR_ALGORITHM, "unknown algorithm number"},
    {KOV_ERR_PCR_INDEX, "no such PCR"},
    {KOV_ERR_PCR_BANK, "PCR bank is not allocated"},
    {KOV_ERR_NONCE_SIZE, "nonce too long for a quote"},
    {KOV_ERR_CAPABILITY, "unknown capability number"},
    {KOV_ERR_CRYPTO, "digest library failed"},
};

// Null for a status that is not one of the library's own.
const own_text *own_text_of(kov_status status)
{
    const auto *found = std::find_if(std::begin(OWN_TEXTS), std::end(OWN_TEXTS),
                                     [status](const own_text &row) { return row.status == status; });
    return found != std::end(OWN_TEXTS) ? found : nullptr;
}

constexpr metric_family errors = {metric_kind::counter,
                                  "attest_tpm_errors_total",
                                  "Operations of the trust anchor that failed.",
                                  {"reason"}};

constexpr kov_status ERRNO_MASK = 0x0000FFFF;

} // namespace

kov_status kov_status_from_errno(int error)
{
    if (error == ENOMEM)
        return KOV_ERR_NO_MEMORY;
    return KOV_ERR_ERRNO | (static_cast<kov_status>(error) & ERRNO_MASK);
}

kov_status kov_status_from_tss(TSS2_RC code)
{
    if (code == TSS2_RC_SUCCESS)
        return KOV_SUCCESS;
    if ((code & ~TSS2_RC_LAYER_MASK) == TSS2_BASE_RC_MEMORY && (code & TSS2_RC_LAYER_MASK) != 0)
        return KOV_ERR_NO_MEMORY;
    return code == KOV_SUCCESS ? KOV_ERR_BAD_RESPONSE : code;
}

bool tpm_response_code_plausible(TSS2_RC code)
{
    if (code == TPM2_RC_SUCCESS)
        return true;
    const TSS2_RC layer = code & ~static_cast<TSS2_RC>(0xFFFF);
    const TSS2_RC base = code & 0xFFFF;
    const bool from_tpm = layer == TSS2_TPM_RC_LAYER;
    const bool from_manager = layer == TSS2_RESMGR_RC_LAYER || layer == TSS2_RESMGR_TPM_RC_LAYER;
    return (from_tpm || from_manager) && base >= TPM2_RC_VER1 && base <= 0xFFF;
}

const char *kov_status_string(kov_status status)
{
    if ((status & ~ERRNO_MASK) == KOV_ERR_ERRNO) {
        const char *text = strerrordesc_np(static_cast<int>(status & ERRNO_MASK));
        return text != nullptr ? text : "unknown system error";
    }
    if (const own_text *own = own_text_of(status))
        return own->text;
    if (status == 0 || (status & 0xFF000000) == KOV_ERR_BASE)
        return "unknown trust-anchor status";
    const char *text = Tss2_RC_Decode(status);
    return text != nullptr ? text : "unknown trust-anchor status";
}

kov_status kov_status_counted(kov_status status)
{
    if (status == KOV_SUCCESS || !metrics_wanted())
        return status;
    if (const own_text *own = own_text_of(status))
        metric_add(errors, {own->text});
    else if ((status & ~ERRNO_MASK) == KOV_ERR_ERRNO)
        metric_add(errors, {"system error"});
    else
        metric_add(errors, {"refused by the TPM"});
    return status;
}
