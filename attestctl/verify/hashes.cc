#define OPENSSL_SUPPRESS_DEPRECATED // SHA1_*, SHA256_*: digests without a context from the heap
#include "attestctl/verify/hashes.h"

#include <algorithm>
#include <array>

#include <openssl/sha.h>
#include <tss2/tss2_tpm2_types.h>

#include "attestctl/openssl_owners.h"

namespace {

constexpr std::array<hash_algorithm, 4> HASHES = {{
    {0, TPM2_ALG_SHA1, "SHA-1", 20, EVP_sha1},
    {1, TPM2_ALG_SHA256, "SHA-256", 32, EVP_sha256},
    {2, TPM2_ALG_SHA384, "SHA-384", 48, EVP_sha384},
    {3, TPM2_ALG_SHA512, "SHA-512", 64, EVP_sha512},
}};

template <typename Predicate>
const hash_algorithm *find_hash(Predicate fits)
{
    const auto *found = std::find_if(HASHES.begin(), HASHES.end(), fits);
    return found == HASHES.end() ? nullptr : found;
}

} // namespace

const hash_algorithm *hash_by_number(std::uint32_t number)
{
    return find_hash([number](const hash_algorithm &row) { return row.number == number; });
}

const hash_algorithm *hash_by_tpm_id(std::uint16_t id)
{
    return find_hash([id](const hash_algorithm &row) { return row.tpm_id == id; });
}

const hash_algorithm &quoted_bank()
{
    return HASHES[1];
}

std::string digest_of(const hash_algorithm &algorithm, std::initializer_list<std::string_view> pieces)
{
    const md_ctx_owner state(EVP_MD_CTX_new());
    if (!state || EVP_DigestInit_ex(state.get(), algorithm.md(), nullptr) != 1)
        return {};
    for (const std::string_view piece : pieces)
        if (EVP_DigestUpdate(state.get(), piece.data(), piece.size()) != 1)
            return {};
    std::string digest(algorithm.size, '\0');
    if (EVP_DigestFinal_ex(state.get(), reinterpret_cast<unsigned char *>(digest.data()), nullptr) != 1)
        return {};
    return digest;
}

sha1_digest sha1_of(std::string_view data)
{
    sha1_digest digest;
    SHA_CTX state;
    SHA1_Init(&state);
    SHA1_Update(&state, data.data(), data.size());
    SHA1_Final(digest.data(), &state);
    return digest;
}

sha256_digest sha256_of(std::string_view data)
{
    sha256_digest digest;
    SHA256_CTX state;
    SHA256_Init(&state);
    SHA256_Update(&state, data.data(), data.size());
    SHA256_Final(digest.data(), &state);
    return digest;
}

sha256_digest sha256_of(const sha256_digest &first, const sha256_digest &second)
{
    std::array<unsigned char, 2 * sizeof(sha256_digest)> both; // whole blocks are not copied once more
    std::copy(first.begin(), first.end(), both.begin());
    std::copy(second.begin(), second.end(), both.begin() + sizeof first);
    sha256_digest digest;
    SHA256_CTX state;
    SHA256_Init(&state);
    SHA256_Update(&state, both.data(), both.size());
    SHA256_Final(digest.data(), &state);
    return digest;
}
