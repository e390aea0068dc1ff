// The hash algorithms of PCR banks, under the numbers that the contract and the TPM have for them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include <openssl/evp.h>

struct hash_algorithm {
    std::uint32_t number; // in the contract
    std::uint16_t tpm_id; // TPM2_ALG_*
    const char *name;     // for people and for OpenSSL
    std::size_t size;     // bytes of a digest
    const EVP_MD *(*md)();
};

// None: nullptr.
const hash_algorithm *hash_by_number(std::uint32_t number);
const hash_algorithm *hash_by_tpm_id(std::uint16_t id);

// SHA-256, in which PCRs are quoted.
const hash_algorithm &quoted_bank();

// The digest of the pieces, one after the other; empty when OpenSSL cannot.
std::string digest_of(const hash_algorithm &algorithm, std::initializer_list<std::string_view> pieces);

// For many digests in a row.
using sha1_digest = std::array<unsigned char, 20>;
using sha256_digest = std::array<unsigned char, 32>;
sha1_digest sha1_of(std::string_view data);
sha256_digest sha256_of(std::string_view data);
sha256_digest sha256_of(const sha256_digest &first, const sha256_digest &second);
