// Prepares what the node's own evidence needs from the trust anchor.
#pragma once

#include <cstdint>

// Called once at start-up. ATTEST_OK, or ATTEST_ERR_KOV_INIT: then every operation that needs the trust
// anchor fails by itself.
std::uint32_t attestation_local_init();
