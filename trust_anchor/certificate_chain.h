// Identity certificates and the nonce signature.
#pragma once

#include <cstdint>

#include "platform/messages.h"

// Fills `record` with the certificate that the request names, its chain and, with a nonce, the signature.
// ATTEST_OK, and the record is the caller's to release; or a status of the agent, and the record is empty.
std::uint32_t attestation_get_certchain(const get_certificate_request *request, SystemCertificates *record);
