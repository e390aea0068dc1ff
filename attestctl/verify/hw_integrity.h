// The board's chips: what was recorded when the node was provisioned, and what is there now.
#pragma once

#include <string>

#include "api/remote_attestation_api.pb.h"
#include "attestctl/check.h"
#include "attestctl/verify/hashes.h"

inline constexpr std::uint32_t REFERENCE_PCR = 15;

// In a list that is judged, shown and pinned; boards have a few dozen chips.
inline constexpr int MOST_IDENTIFIERS = 4096;

// PCR 15 after the extension by the recorded list: H(zeros || H(all recorded digests)). Empty for a hash that
// cannot be computed.
std::string reference_pcr_value(const remote_attestation_api::tpm_hw_integrity &record,
                                const hash_algorithm &bank);

// Adds the rows "hardware identifiers" (both lists are the same) and "hardware binding" (PCR 15 is
// what the recorded list gives). `bank` is the one that was asked for.
void check_hw_integrity(check_list &list, const remote_attestation_api::tpm_hw_integrity &record,
                        const hash_algorithm &bank);
