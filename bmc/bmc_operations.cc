#include "bmc/bmc_operations.h"

#include "agent/debug_trace.h"
#include "agent/status.h"

namespace {

// Without a transport to the BMC every relay ends as one that could not log in.
std::uint32_t no_transport(const char *operation)
{
    attest_trace_as(operation, "Failed to fetch data from BMC");
    return ATTEST_ERR_NO_DATA;
}

} // namespace

std::uint32_t attestation_get_bmc_sb_event_logs(const get_platform_boot_integrity_event_logs_request *,
                                                NodeBootIntegrityLog *)
{
    attest_trace("Starting BIV fetch with BMC...");
    return no_transport(__func__);
}

std::uint32_t attestation_attest_pcrs_bmc(const attest_pcr_request *, NodePCRData *)
{
    attest_trace("Starting PCR fetch with BMC...");
    return no_transport(__func__);
}

std::uint32_t attestation_get_bmc_ima_event_logs(const get_platform_ima_event_logs_request *, NodeIMAData *)
{
    attest_trace("Starting IMA fetch with BMC...");
    return no_transport(__func__);
}

std::uint32_t attestation_get_certchain_bmc(const get_certificate_request *, SystemCertificates *)
{
    attest_trace("Starting certificate fetch with BMC...");
    return no_transport(__func__);
}

std::uint32_t get_platform_hw_integrity_bmc(const get_platform_hw_integrity_request *, tpm_hw_integrity *)
{
    attest_trace("Starting HW integrity fetch with BMC...");
    return no_transport(__func__);
}
