#include "trust_anchor/hw_integrity.h"

#include "agent/debug_trace.h"
#include "agent/status.h"

std::uint32_t get_platform_hw_integrity_local(const get_platform_hw_integrity_request *request,
                                              tpm_hw_integrity *record)
{
    if (request == nullptr || record == nullptr) {
        attest_trace("%s invalid parameters ", __func__);
        return ATTEST_ERR_INVALID_PARAM;
    }
    return ATTEST_ERR_KOV_COMM;
}
