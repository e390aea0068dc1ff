#include "trust_anchor/certificate_chain.h"

#include "agent/debug_trace.h"
#include "agent/status.h"

std::uint32_t attestation_get_certchain(const get_certificate_request *request, SystemCertificates *record)
{
    if (request == nullptr || record == nullptr) {
        attest_trace("%s invalid parameters ", __func__);
        return ATTEST_ERR_INVALID_PARAM;
    }
    return ATTEST_ERR_KOV_COMM;
}
