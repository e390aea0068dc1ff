// PCR values and the quote over them.
#pragma once

#include <cstdint>

#include "platform/messages.h"

// Fills `record` with the values of the requested PCRs and the quote. ATTEST_OK, and the record is the
// caller's to release; or a status of the agent, and the record is empty.
std::uint32_t attestation_attest_pcrs(const attest_pcr_request *request, NodePCRData *record);
