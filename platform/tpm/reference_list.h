// The reference list of the board's identifiers: its digests, its comparison with the board, its binding to
// PCR 15. What a verifier computes is in platform/trust_anchor_client.h.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/tpm/board_identifiers.h"
#include "platform/tpm/connection.h"
#include "platform/tpm/manifest.h"

inline constexpr std::uint32_t REFERENCE_PCR = 15;

// The reference list that records these identifiers. False when OpenSSL fails.
[[nodiscard]] bool reference_list_make(const std::vector<board_identifier> &board,
                                       std::vector<manifest_identifier> &reference);

// The digests of the reference list, end to end.
std::vector<std::uint8_t> reference_digests(const std::vector<manifest_identifier> &reference,
                                            const tpm_algorithm &algorithm);

// The digests of the board's identifiers in the order of the reference list, zeros for those that are gone,
// then those it does not know. False when OpenSSL fails.
[[nodiscard]] bool board_digests(const std::vector<board_identifier> &board,
                                 const std::vector<manifest_identifier> &reference,
                                 const tpm_algorithm &algorithm, std::vector<std::uint8_t> &digests);

enum class pcr_binding { zero, bound, other };
struct bank_binding {
    const tpm_algorithm *bank;
    pcr_binding state;
};
// What PCR 15 holds in each allocated bank of the four algorithms.
kov_status reference_binding_read(tpm_connection &connection,
                                  const std::vector<manifest_identifier> &reference,
                                  std::vector<bank_binding> &banks);

// Extends PCR 15 with the reference list in the banks where it is zero; says in *extended whether there were
// any.
kov_status reference_list_bind(tpm_connection &connection, const std::vector<manifest_identifier> &reference,
                               bool *extended);
