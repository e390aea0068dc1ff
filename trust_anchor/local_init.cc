#include "trust_anchor/local_init.h"

#include "agent/debug_trace.h"
#include "agent/status.h"

std::uint32_t attestation_local_init()
{
    attest_trace("no trust-anchor client in this build: %s", status_strerror(ATTEST_ERR_NOT_SUPPORTED));
    return ATTEST_ERR_KOV_INIT;
}
