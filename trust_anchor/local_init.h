// Prepares what the node's own evidence needs: the trust anchor, then the cache of the kernel's list.
#pragma once

#include <cstdint>

// Fills at_agent_state and at_soft_data_limit. Called once at start-up. ATTEST_OK; or ATTEST_ERR_KOV_INIT at
// the first step that fails: then every operation that needs the trust anchor fails at its own login, and the
// list is served without the cache, which comes last.
std::uint32_t attestation_local_init();
