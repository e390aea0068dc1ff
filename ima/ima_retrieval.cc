#include "ima/ima_retrieval.h"

#include "agent/debug_trace.h"
#include "agent/status.h"

std::uint32_t attestation_get_local_ima_event_logs(std::uint64_t, std::uint64_t, NodeIMAData *,
                                                   remote_attestation_api_client, std::uint32_t, int)
{
    attest_trace("no IMA retrieval in this build: %s", status_strerror(ATTEST_ERR_NOT_SUPPORTED));
    return ATTEST_ERR_NOT_SUPPORTED;
}
