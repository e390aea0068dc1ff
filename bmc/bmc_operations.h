// The BMC's own evidence: each operation relays the request as it came and decodes the BMC's record.
//
// ATTEST_OK, and the reply is the caller's to release; ATTEST_ERR_NO_DATA when the BMC gave none,
// ATTEST_ERR_NO_MEMORY; then the reply is empty.
#pragma once

#include <cstdint>

#include "platform/messages.h"

std::uint32_t attestation_get_bmc_sb_event_logs(const get_platform_boot_integrity_event_logs_request *request,
                                                NodeBootIntegrityLog *reply);
std::uint32_t attestation_attest_pcrs_bmc(const attest_pcr_request *request, NodePCRData *reply);
std::uint32_t attestation_get_bmc_ima_event_logs(const get_platform_ima_event_logs_request *request,
                                                 NodeIMAData *reply);
std::uint32_t attestation_get_certchain_bmc(const get_certificate_request *request,
                                            SystemCertificates *reply);
std::uint32_t get_platform_hw_integrity_bmc(const get_platform_hw_integrity_request *request,
                                            tpm_hw_integrity *reply);
