#include "bench/trust_anchor/bare_tpm.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <openssl/evp.h>

#include "platform/tpm/manifest.h"

namespace {

void require(bool done, const char *what)
{
    if (!done) {
        std::fprintf(stderr, "the bare TPM: %s failed\n", what);
        std::exit(1);
    }
}

} // namespace

bare_tpm::bare_tpm(const std::string &address, const std::string &manifest)
{
    setenv("ATTEST_TPM", address.c_str(), 1);
    require(tpm_connection_open({kov_linux_ipc_init, kov_linux_ipc_cleanup, kov_linux_ipc_open,
                                 kov_linux_ipc_close, kov_linux_ipc_send, kov_linux_ipc_receive},
                                1, connection_) == KOV_SUCCESS,
            "connecting");
    esys_ = connection_->esys;
    quoting_key_ = key(manifest, "RSA_AIK_KEY");
    signing_key_ = key(manifest, "RSA_VOXAKEY");
}

ESYS_TR bare_tpm::key(const std::string &manifest_file, const char *name)
{
    manifest loaded;
    require(manifest_load(manifest_file, loaded) == KOV_SUCCESS, manifest_file.c_str());
    const manifest_key *wanted = manifest_find_key(loaded, name);
    require(wanted != nullptr, name);
    ESYS_TR found = ESYS_TR_NONE;
    require(Esys_TR_FromTPMPublic(esys_, wanted->handle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &found) ==
                TSS2_RC_SUCCESS,
            name);
    TPM2B_AUTH secret{};
    secret.size = static_cast<UINT16>(std::strlen(KOV_LOGIN_SECRET));
    std::memcpy(secret.buffer, KOV_LOGIN_SECRET, secret.size);
    require(Esys_TR_SetAuth(esys_, found, &secret) == TSS2_RC_SUCCESS, name);
    return found;
}

bool bare_tpm::read_clock()
{
    TPMS_TIME_INFO *time = nullptr;
    const TSS2_RC code = Esys_ReadClock(esys_, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &time);
    const esys_ptr<TPMS_TIME_INFO> owned(time);
    return code == TSS2_RC_SUCCESS;
}

bool bare_tpm::read_and_quote(std::uint32_t count, std::span<const std::uint8_t> nonce)
{
    const tpm_algorithm &bank = *tpm_algorithm_of_number(KOV_ALG_SHA256);
    for (std::uint32_t i = 0; i < count; ++i) {
        const TPML_PCR_SELECTION asked{1, {pcr_selection(bank, 1u << i)}};
        TPML_PCR_SELECTION *read = nullptr;
        TPML_DIGEST *values = nullptr;
        UINT32 counter = 0;
        const TSS2_RC code =
            Esys_PCR_Read(esys_, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &asked, &counter, &read, &values);
        const esys_ptr<TPML_PCR_SELECTION> owned_selection(read);
        const esys_ptr<TPML_DIGEST> owned_values(values);
        if (code != TSS2_RC_SUCCESS || values->count != 1)
            return false;
    }
    TPM2B_DATA extra{};
    extra.size = static_cast<UINT16>(nonce.size());
    std::copy(nonce.begin(), nonce.end(), extra.buffer);
    TPMT_SIG_SCHEME scheme{};
    scheme.scheme = TPM2_ALG_NULL;
    const TPML_PCR_SELECTION quoted{1, {pcr_selection(bank, (1u << count) - 1)}};
    TPM2B_ATTEST *quote = nullptr;
    TPMT_SIGNATURE *signature = nullptr;
    const TSS2_RC code = Esys_Quote(esys_, quoting_key_, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &extra,
                                    &scheme, &quoted, &quote, &signature);
    const esys_ptr<TPM2B_ATTEST> owned_quote(quote);
    const esys_ptr<TPMT_SIGNATURE> owned_signature(signature);
    return code == TSS2_RC_SUCCESS;
}

bool bare_tpm::sign(std::span<const std::uint8_t> data)
{
    TPM2B_DIGEST digest{};
    unsigned length = 0;
    if (EVP_Digest(data.data(), data.size(), digest.buffer, &length, EVP_sha256(), nullptr) != 1)
        return false;
    digest.size = static_cast<UINT16>(length);
    TPMT_SIG_SCHEME scheme{};
    scheme.scheme = TPM2_ALG_RSASSA;
    scheme.details.rsassa.hashAlg = TPM2_ALG_SHA256;
    TPMT_TK_HASHCHECK no_ticket{};
    no_ticket.tag = TPM2_ST_HASHCHECK;
    no_ticket.hierarchy = TPM2_RH_NULL;
    TPMT_SIGNATURE *signature = nullptr;
    const TSS2_RC code = Esys_Sign(esys_, signing_key_, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &digest,
                                   &scheme, &no_ticket, &signature);
    const esys_ptr<TPMT_SIGNATURE> owned(signature);
    return code == TSS2_RC_SUCCESS;
}
