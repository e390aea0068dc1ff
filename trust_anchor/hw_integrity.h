// The hardware-integrity report.
#pragma once

#include <cstdint>

#include "platform/messages.h"

// Fills `record`, which is zeroed. ATTEST_OK, and the record is the caller's to release; or a status of the
// agent. ATTEST_ERR_KOV_COMM may leave what could be collected in the record; every other failure leaves it
// empty. Ends the process (status 1, after the message INIT) when the node's name cannot be read any more.
std::uint32_t get_platform_hw_integrity_local(const get_platform_hw_integrity_request *request,
                                              tpm_hw_integrity *record);
