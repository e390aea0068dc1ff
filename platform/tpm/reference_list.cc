#include "platform/tpm/reference_list.h"

#include <algorithm>
#include <cstring>

namespace {

std::span<const std::uint8_t> bytes_of(const std::string &text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

void append(std::vector<std::uint8_t> &digests, const digest_value &digest, const tpm_algorithm &algorithm)
{
    digests.insert(digests.end(), digest.begin(), digest.begin() + algorithm.digest_size);
}

std::size_t column_of(const tpm_algorithm &algorithm)
{
    return static_cast<std::size_t>(&algorithm - tpm_algorithms.data());
}

[[nodiscard]] bool extension_of(const std::vector<manifest_identifier> &reference,
                                const tpm_algorithm &algorithm, digest_value &extension)
{
    return digest_of(algorithm, {reference_digests(reference, algorithm)}, extension);
}

// What PCR 15 is after the extension.
[[nodiscard]] bool bound_value(const std::vector<manifest_identifier> &reference,
                               const tpm_algorithm &algorithm, digest_value &value)
{
    const digest_value zeros{};
    digest_value extension;
    const std::size_t size = algorithm.digest_size;
    return extension_of(reference, algorithm, extension) &&
           digest_of(algorithm, {std::span(zeros).first(size), std::span(extension).first(size)}, value);
}

kov_status read_reference_pcr(tpm_connection &connection, const std::vector<const tpm_algorithm *> &banks,
                              TPML_DIGEST &values)
{
    TPML_PCR_SELECTION asked{};
    for (const tpm_algorithm *bank : banks)
        asked.pcrSelections[asked.count++] = pcr_selection(*bank, 1u << REFERENCE_PCR);
    UINT32 counter = 0;
    TPML_PCR_SELECTION *read = nullptr;
    TPML_DIGEST *answer = nullptr;
    const TSS2_RC code = Esys_PCR_Read(connection.esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &asked,
                                       &counter, &read, &answer);
    const esys_ptr<TPML_PCR_SELECTION> owned_selection(read);
    const esys_ptr<TPML_DIGEST> owned_values(answer);
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(connection, code);
    values = *owned_values;
    bool sizes = values.count == banks.size();
    for (std::size_t i = 0; sizes && i < banks.size(); ++i)
        sizes = values.digests[i].size == banks[i]->digest_size;
    return sizes ? kov_status{KOV_SUCCESS} : kov_status{KOV_ERR_PCR_BANK};
}

} // namespace

bool reference_list_make(const std::vector<board_identifier> &board,
                         std::vector<manifest_identifier> &reference)
{
    reference.clear();
    for (const board_identifier &one : board) {
        manifest_identifier recorded{one.place, {}};
        for (std::size_t i = 0; i < TPM_ALGORITHM_COUNT; ++i) {
            if (!digest_of(tpm_algorithms[i], {bytes_of(one.value)}, recorded.digests[i]))
                return false;
        }
        reference.push_back(std::move(recorded));
    }
    return true;
}

std::vector<std::uint8_t> reference_digests(const std::vector<manifest_identifier> &reference,
                                            const tpm_algorithm &algorithm)
{
    std::vector<std::uint8_t> digests;
    for (const manifest_identifier &one : reference)
        append(digests, one.digests[column_of(algorithm)], algorithm);
    return digests;
}

bool board_digests(const std::vector<board_identifier> &board,
                   const std::vector<manifest_identifier> &reference, const tpm_algorithm &algorithm,
                   std::vector<std::uint8_t> &digests)
{
    digests.assign(reference.size() * algorithm.digest_size, 0);
    for (const board_identifier &one : board) {
        digest_value digest;
        if (!digest_of(algorithm, {bytes_of(one.value)}, digest))
            return false;
        const auto known =
            std::find_if(reference.begin(), reference.end(),
                         [&](const manifest_identifier &recorded) { return recorded.place == one.place; });
        if (known == reference.end())
            append(digests, digest, algorithm);
        else
            std::memcpy(digests.data() + (known - reference.begin()) * algorithm.digest_size, digest.data(),
                        algorithm.digest_size);
    }
    return true;
}

kov_status reference_binding_read(tpm_connection &connection,
                                  const std::vector<manifest_identifier> &reference,
                                  std::vector<bank_binding> &banks)
{
    banks.clear();
    std::vector<const tpm_algorithm *> allocated;
    kov_status status = tpm_allocated_banks(connection, allocated);
    if (status != KOV_SUCCESS || allocated.empty())
        return status;
    TPML_DIGEST values{};
    status = read_reference_pcr(connection, allocated, values);
    if (status != KOV_SUCCESS)
        return status;
    for (std::size_t i = 0; i < allocated.size(); ++i) {
        const std::uint8_t *value = values.digests[i].buffer;
        const std::size_t size = allocated[i]->digest_size;
        digest_value bound;
        if (!bound_value(reference, *allocated[i], bound))
            return KOV_ERR_CRYPTO;
        pcr_binding state = pcr_binding::other;
        if (std::all_of(value, value + size, [](std::uint8_t byte) { return byte == 0; }))
            state = pcr_binding::zero;
        else if (std::equal(value, value + size, bound.begin()))
            state = pcr_binding::bound;
        banks.push_back({allocated[i], state});
    }
    return KOV_SUCCESS;
}

kov_status reference_list_bind(tpm_connection &connection, const std::vector<manifest_identifier> &reference,
                               bool *extended)
{
    *extended = false;
    std::vector<bank_binding> banks;
    const kov_status status = reference_binding_read(connection, reference, banks);
    if (status != KOV_SUCCESS)
        return status;
    TPML_DIGEST_VALUES values{};
    for (const bank_binding &one : banks) {
        if (one.state != pcr_binding::zero)
            continue;
        digest_value extension;
        if (!extension_of(reference, *one.bank, extension))
            return KOV_ERR_CRYPTO;
        TPMT_HA &value = values.digests[values.count++];
        value.hashAlg = one.bank->id;
        std::memcpy(&value.digest, extension.data(), one.bank->digest_size);
    }
    if (values.count == 0)
        return KOV_SUCCESS;
    const TSS2_RC code = Esys_PCR_Extend(connection.esys, ESYS_TR_PCR0 + REFERENCE_PCR, ESYS_TR_PASSWORD,
                                         ESYS_TR_NONE, ESYS_TR_NONE, &values);
    *extended = code == TSS2_RC_SUCCESS;
    return tpm_connection_result(connection, code);
}
