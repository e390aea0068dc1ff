// The four algorithm numbers and what they mean to the TPM and to OpenSSL.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>

#include <openssl/evp.h>
#include <tss2/tss2_tpm2_types.h>

struct tpm_algorithm {
    std::uint32_t number; // KOV_ALG_*
    TPM2_ALG_ID id;
    const char *name; // as it stands in the manifest
    std::uint16_t digest_size;
    const EVP_MD *(*md)();
};

inline constexpr std::size_t TPM_ALGORITHM_COUNT = 4;
inline constexpr std::size_t MAX_DIGEST_SIZE = 64;

extern const std::array<tpm_algorithm, TPM_ALGORITHM_COUNT> tpm_algorithms;

// Null for a number that is none of the four.
const tpm_algorithm *tpm_algorithm_of_number(std::uint32_t number);

using digest_value = std::array<std::uint8_t, MAX_DIGEST_SIZE>; // the first digest_size bytes count

// The digest of the pieces, one after the other. False when OpenSSL fails.
[[nodiscard]] bool digest_of(const tpm_algorithm &algorithm,
                             std::initializer_list<std::span<const std::uint8_t>> pieces,
                             digest_value &digest);
