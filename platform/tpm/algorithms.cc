#include "platform/tpm/algorithms.h"

#include <algorithm>
#include <memory>

#include "platform/trust_anchor_client.h"

const std::array<tpm_algorithm, TPM_ALGORITHM_COUNT> tpm_algorithms{{
    {KOV_ALG_SHA1, TPM2_ALG_SHA1, "sha1", 20, EVP_sha1},
    {KOV_ALG_SHA256, TPM2_ALG_SHA256, "sha256", 32, EVP_sha256},
    {KOV_ALG_SHA384, TPM2_ALG_SHA384, "sha384", 48, EVP_sha384},
    {KOV_ALG_SHA512, TPM2_ALG_SHA512, "sha512", 64, EVP_sha512},
}};

const tpm_algorithm *tpm_algorithm_of_number(std::uint32_t number)
{
    const auto found = std::find_if(tpm_algorithms.begin(), tpm_algorithms.end(),
                                    [number](const tpm_algorithm &row) { return row.number == number; });
    return found == tpm_algorithms.end() ? nullptr : &*found;
}

bool digest_of(const tpm_algorithm &algorithm, std::initializer_list<std::span<const std::uint8_t>> pieces,
               digest_value &digest)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> state(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!state || EVP_DigestInit_ex(state.get(), algorithm.md(), nullptr) != 1)
        return false;
    for (const auto &piece : pieces) {
        if (EVP_DigestUpdate(state.get(), piece.data(), piece.size()) != 1)
            return false;
    }
    return EVP_DigestFinal_ex(state.get(), digest.data(), nullptr) == 1;
}
