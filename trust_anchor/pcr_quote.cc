#include "trust_anchor/pcr_quote.h"

#include "agent/debug_trace.h"
#include "agent/status.h"

std::uint32_t attestation_attest_pcrs(const attest_pcr_request *request, NodePCRData *record)
{
    if (request == nullptr || record == nullptr || (request->present & request->has_pcr_indices) == 0) {
        attest_trace("%s invalid parameters ", __func__);
        return ATTEST_ERR_INVALID_PARAM;
    }
    attest_trace("%s PCR read / quote not supported ", __func__);
    return ATTEST_ERR_NOT_SUPPORTED;
}
