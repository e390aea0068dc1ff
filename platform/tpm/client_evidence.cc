// Capabilities, PCR values and quotes.
#include <array>

#include <tss2/tss2_mu.h>

#include "platform/tpm/client.h"

namespace {

kov_status can_read_pcrs(tpm_connection &connection, bool &present)
{
    std::vector<const tpm_algorithm *> banks;
    const kov_status status = tpm_allocated_banks(connection, banks);
    present = false;
    for (const tpm_algorithm *bank : banks)
        present = present || bank->number == KOV_ALG_SHA256;
    return status;
}

kov_status can_quote(tpm_connection &connection, bool &present)
{
    TPMI_YES_NO more = TPM2_NO;
    TPMS_CAPABILITY_DATA *answer = nullptr;
    const TSS2_RC code = Esys_GetCapability(connection.esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                            TPM2_CAP_COMMANDS, TPM2_CC_Quote, 1, &more, &answer);
    const esys_ptr<TPMS_CAPABILITY_DATA> owned(answer);
    present = code == TSS2_RC_SUCCESS && owned->data.command.count > 0 &&
              (owned->data.command.commandAttributes[0] & TPMA_CC_COMMANDINDEX_MASK) == TPM2_CC_Quote;
    return tpm_connection_result(connection, code);
}

// The TPM leaves PCRs that it does not keep out of the selection that it quotes, without a word.
bool quotes_selection(const TPM2B_ATTEST &quote, const TPMS_PCR_SELECTION &asked)
{
    std::size_t offset = 0;
    TPMS_ATTEST attest{};
    if (Tss2_MU_TPMS_ATTEST_Unmarshal(quote.attestationData, quote.size, &offset, &attest) !=
            TSS2_RC_SUCCESS ||
        offset != quote.size || attest.magic != TPM2_GENERATED_VALUE || attest.type != TPM2_ST_ATTEST_QUOTE)
        return false;
    const TPML_PCR_SELECTION &quoted = attest.attested.quote.pcrSelect;
    if (quoted.count != 1 || quoted.pcrSelections[0].hash != asked.hash)
        return false;
    std::uint32_t mask_quoted = 0;
    std::uint32_t mask_asked = 0;
    for (std::size_t i = 0; i < asked.sizeofSelect; ++i) {
        if (i < quoted.pcrSelections[0].sizeofSelect)
            mask_quoted |= std::uint32_t{quoted.pcrSelections[0].pcrSelect[i]} << (8 * i);
        mask_asked |= std::uint32_t{asked.pcrSelect[i]} << (8 * i);
    }
    return mask_quoted == mask_asked;
}

struct quote_request {
    const char *key_name;
    const tpm_algorithm *bank;
    std::uint32_t mask;
    std::span<const std::uint8_t> nonce;
};

struct signed_quote {
    esys_ptr<TPM2B_ATTEST> quote;
    std::array<std::uint8_t, sizeof(TPMT_SIGNATURE)> signature;
    std::size_t signature_length = 0;
};

kov_status make_quote(kovc_session &session, const quote_request &request, signed_quote &made)
{
    ESYS_TR key = ESYS_TR_NONE;
    const kov_status status = session_key(session, request.key_name, &key);
    if (status != KOV_SUCCESS)
        return status;
    tpm_connection &connection = *session.context->connection;
    TPM2B_DATA extra_data{};
    static_assert(KOV_MAX_NONCE_BYTES <= sizeof extra_data.buffer);
    extra_data.size = static_cast<UINT16>(request.nonce.size());
    std::copy(request.nonce.begin(), request.nonce.end(), extra_data.buffer);
    TPMT_SIG_SCHEME scheme_of_key{};
    scheme_of_key.scheme = TPM2_ALG_NULL;
    TPML_PCR_SELECTION selection{1, {pcr_selection(*request.bank, request.mask)}};
    TPM2B_ATTEST *quote = nullptr;
    TPMT_SIGNATURE *signature = nullptr;
    const TSS2_RC code = Esys_Quote(connection.esys, key, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                                    &extra_data, &scheme_of_key, &selection, &quote, &signature);
    made.quote.reset(quote);
    const esys_ptr<TPMT_SIGNATURE> owned(signature);
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(connection, code);
    if (owned->sigAlg != TPM2_ALG_RSASSA)
        return KOV_ERR_BAD_RESPONSE;
    if (!quotes_selection(*made.quote, selection.pcrSelections[0]))
        return KOV_ERR_PCR_BANK;
    return tpm_connection_result(
        connection, Tss2_MU_TPMT_SIGNATURE_Marshal(owned.get(), made.signature.data(), made.signature.size(),
                                                   &made.signature_length));
}

kov_status read_pcr(tpm_connection &connection, const tpm_algorithm &bank, std::uint32_t index,
                    TPM2B_DIGEST &value, UINT32 &counter)
{
    const TPML_PCR_SELECTION asked{1, {pcr_selection(bank, 1u << index)}};
    TPML_PCR_SELECTION *read = nullptr;
    TPML_DIGEST *values = nullptr;
    const TSS2_RC code = Esys_PCR_Read(connection.esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &asked,
                                       &counter, &read, &values);
    const esys_ptr<TPML_PCR_SELECTION> owned_selection(read);
    const esys_ptr<TPML_DIGEST> owned_values(values);
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(connection, code);
    // A bank that is not allocated is no error to the TPM: it reads nothing.
    if (owned_values->count != 1 || owned_values->digests[0].size != bank.digest_size)
        return KOV_ERR_PCR_BANK;
    value = owned_values->digests[0];
    return KOV_SUCCESS;
}

} // namespace

kov_status kovc_device_capability(kovc_session *session, std::uint32_t capability, kov_capability **result)
{
    if (result == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *result = nullptr;
    if (session == nullptr)
        return KOV_ERR_INVALID_PARAM;
    if (capability != KOV_CAPABILITY_PCR_READ && capability != KOV_CAPABILITY_PCR_QUOTE)
        return KOV_ERR_CAPABILITY;
    return counted([&] {
        bool present = false;
        tpm_connection *connection = nullptr;
        kov_status status = session_connection(*session, &connection);
        if (status == KOV_SUCCESS)
            status = capability == KOV_CAPABILITY_PCR_READ ? can_read_pcrs(*connection, present)
                                                           : can_quote(*connection, present);
        if (status != KOV_SUCCESS)
            return status;
        *result = static_cast<kov_capability *>(client_alloc(sizeof **result));
        if (*result == nullptr)
            return kov_status{KOV_ERR_NO_MEMORY};
        **result = {capability, present ? 1u : 0u};
        return status;
    });
}

kov_status kovc_pcr_read(kovc_session *session, std::uint32_t algorithm, std::uint32_t pcr_index,
                         std::uint8_t **value, std::uint32_t *length, std::uint32_t *update_counter)
{
    if (value != nullptr)
        *value = nullptr;
    if (length != nullptr)
        *length = 0;
    if (update_counter != nullptr)
        *update_counter = 0;
    if (session == nullptr || value == nullptr || length == nullptr)
        return KOV_ERR_INVALID_PARAM;
    const tpm_algorithm *bank = tpm_algorithm_of_number(algorithm);
    if (bank == nullptr)
        return KOV_ERR_ALGORITHM;
    if (pcr_index >= TPM_PCR_COUNT)
        return KOV_ERR_PCR_INDEX;
    return counted([&] {
        TPM2B_DIGEST digest{};
        UINT32 counter = 0;
        tpm_connection *connection = nullptr;
        kov_status status = session_connection(*session, &connection);
        if (status == KOV_SUCCESS)
            status = read_pcr(*connection, *bank, pcr_index, digest, counter);
        if (status == KOV_SUCCESS)
            status = hand_out({digest.buffer, digest.size}, value, length);
        if (status == KOV_SUCCESS && update_counter != nullptr)
            *update_counter = counter;
        return status;
    });
}

kov_status kovc_tpm2_pcr_quote(kovc_session *session, std::uint32_t reserved, const char *key_name,
                               std::uint32_t algorithm, std::uint64_t mask, std::uint32_t quote_algorithm,
                               const std::uint8_t *nonce, std::uint32_t nonce_length, std::uint8_t **quote,
                               std::uint32_t *quote_length, std::uint8_t **signature,
                               std::uint32_t *signature_length)
{
    if (quote == nullptr || quote_length == nullptr || signature == nullptr || signature_length == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *quote = *signature = nullptr;
    *quote_length = *signature_length = 0;
    if (session == nullptr || reserved != 0 || key_name == nullptr || (nonce == nullptr && nonce_length != 0))
        return KOV_ERR_INVALID_PARAM;
    const tpm_algorithm *bank = tpm_algorithm_of_number(algorithm);
    if (bank == nullptr || tpm_algorithm_of_number(quote_algorithm) == nullptr)
        return KOV_ERR_ALGORITHM;
    if (mask >> TPM_PCR_COUNT != 0)
        return KOV_ERR_PCR_INDEX;
    if (nonce_length > KOV_MAX_NONCE_BYTES)
        return KOV_ERR_NONCE_SIZE;
    return counted([&] {
        signed_quote made;
        const quote_request request{key_name, bank, static_cast<std::uint32_t>(mask), {nonce, nonce_length}};
        kov_status status = make_quote(*session, request, made);
        if (status != KOV_SUCCESS)
            return status;
        status = hand_out({made.quote->attestationData, made.quote->size}, quote, quote_length);
        if (status != KOV_SUCCESS)
            return status;
        status = hand_out({made.signature.data(), made.signature_length}, signature, signature_length);
        if (status != KOV_SUCCESS) {
            client_free(*quote);
            *quote = nullptr;
            *quote_length = 0;
        }
        return status;
    });
}
