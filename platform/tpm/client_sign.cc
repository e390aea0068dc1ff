// Signing. The data is digested here and not by the TPM's hash sequences: those cost a command for every KiB
// and a slot in the TPM that an interrupted session would leave behind.
#include <algorithm>

#include "platform/tpm/client.h"

namespace {

using signing_slot = std::vector<std::unique_ptr<kovc_signing>>::iterator;

signing_slot find_signing(kovc_session &session, const kovc_signing *signing)
{
    return std::find_if(session.signings.begin(), session.signings.end(),
                        [signing](const auto &held) { return held.get() == signing; });
}

kov_status sign_digest(kovc_session &session, kovc_signing &signing, esys_ptr<TPMT_SIGNATURE> &signature)
{
    ESYS_TR key = ESYS_TR_NONE;
    const kov_status status = session_key(session, signing.key_name.c_str(), &key);
    if (status != KOV_SUCCESS)
        return status;
    tpm_connection &connection = *session.context->connection;
    TPM2B_DIGEST digest{};
    digest.size = signing.algorithm->digest_size;
    if (EVP_DigestFinal_ex(signing.digest.get(), digest.buffer, nullptr) != 1)
        return KOV_ERR_CRYPTO;
    TPMT_SIG_SCHEME scheme{};
    scheme.scheme = TPM2_ALG_RSASSA;
    scheme.details.rsassa.hashAlg = signing.algorithm->id;
    TPMT_TK_HASHCHECK no_ticket{}; // what an unrestricted key may sign without
    no_ticket.tag = TPM2_ST_HASHCHECK;
    no_ticket.hierarchy = TPM2_RH_NULL;
    TPMT_SIGNATURE *answer = nullptr;
    const TSS2_RC code = Esys_Sign(connection.esys, key, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                                   &digest, &scheme, &no_ticket, &answer);
    signature.reset(answer);
    if (code == TSS2_RC_SUCCESS && signature->sigAlg != TPM2_ALG_RSASSA)
        return KOV_ERR_BAD_RESPONSE;
    return tpm_connection_result(connection, code);
}

} // namespace

kov_status kovc_sign_init(kovc_session *session, const char *user_name, const char *key_name,
                          std::uint32_t algorithm, kovc_signing **signing)
{
    if (signing == nullptr)
        return KOV_ERR_INVALID_PARAM;
    *signing = nullptr;
    if (session == nullptr || user_name == nullptr || key_name == nullptr)
        return KOV_ERR_INVALID_PARAM;
    return counted([&] {
        if (session->context->user != user_name)
            return kov_status{KOV_ERR_LOGIN};
        const tpm_algorithm *digest = tpm_algorithm_of_number(algorithm);
        if (digest == nullptr)
            return kov_status{KOV_ERR_ALGORITHM};
        auto begun = std::make_unique<kovc_signing>(
            kovc_signing{digest, key_name, {EVP_MD_CTX_new(), EVP_MD_CTX_free}});
        if (!begun->digest || EVP_DigestInit_ex(begun->digest.get(), digest->md(), nullptr) != 1)
            return kov_status{KOV_ERR_CRYPTO};
        ESYS_TR key = ESYS_TR_NONE; // whether there is such a key
        const kov_status status = session_key(*session, key_name, &key);
        if (status != KOV_SUCCESS)
            return status;
        session->signings.push_back(std::move(begun));
        *signing = session->signings.back().get();
        return status;
    });
}

kov_status kovc_sign_update(kovc_session *session, kovc_signing *signing, const std::uint8_t *data,
                            std::uint32_t length)
{
    if (session == nullptr || (data == nullptr && length != 0))
        return KOV_ERR_INVALID_PARAM;
    const signing_slot held = find_signing(*session, signing);
    if (held == session->signings.end())
        return KOV_ERR_INVALID_PARAM;
    return EVP_DigestUpdate((*held)->digest.get(), data, length) == 1 ? KOV_SUCCESS : KOV_ERR_CRYPTO;
}

kov_status kovc_sign_final(kovc_session *session, kovc_signing *signing, std::uint8_t **signature,
                           std::uint32_t *length)
{
    if (signature != nullptr)
        *signature = nullptr;
    if (length != nullptr)
        *length = 0;
    if (session == nullptr)
        return KOV_ERR_INVALID_PARAM;
    const signing_slot held = find_signing(*session, signing);
    if (held == session->signings.end())
        return KOV_ERR_INVALID_PARAM;
    const std::unique_ptr<kovc_signing> ending = std::move(*held);
    session->signings.erase(held);
    if (signature == nullptr || length == nullptr)
        return KOV_ERR_INVALID_PARAM;
    return counted([&] {
        esys_ptr<TPMT_SIGNATURE> made;
        const kov_status status = sign_digest(*session, *ending, made);
        if (status != KOV_SUCCESS)
            return status;
        const TPM2B_PUBLIC_KEY_RSA &bytes = made->signature.rsassa.sig;
        return hand_out({bytes.buffer, bytes.size}, signature, length);
    });
}
