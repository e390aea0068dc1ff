#include "tools/attest_provision/tpm_keys.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include <openssl/core_names.h>
#include <openssl/param_build.h>

#include "platform/tpm/linux_ipc.h"
#include "platform/tpm/manifest.h"
#include "tools/attest_provision/report.h"

namespace {

// A discrete TPM may search primes for minutes; no agent waits here.
constexpr std::chrono::minutes KEY_MAKING_BOUND{5};

constexpr ESYS_TR NO_SESSION = ESYS_TR_NONE;

TPM2B_PUBLIC storage_root_template()
{
    TPM2B_PUBLIC root{};
    TPMT_PUBLIC &area = root.publicArea;
    area.type = TPM2_ALG_ECC;
    area.nameAlg = TPM2_ALG_SHA256;
    area.objectAttributes = TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT | TPMA_OBJECT_FIXEDTPM |
                            TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN |
                            TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_NODA;
    TPMS_ECC_PARMS &parameters = area.parameters.eccDetail;
    parameters.symmetric.algorithm = TPM2_ALG_AES;
    parameters.symmetric.keyBits.aes = 128;
    parameters.symmetric.mode.aes = TPM2_ALG_CFB;
    parameters.scheme.scheme = TPM2_ALG_NULL;
    parameters.curveID = TPM2_ECC_NIST_P256;
    parameters.kdf.scheme = TPM2_ALG_NULL;
    return root;
}

TPM2B_PUBLIC signing_key_template(bool restricted)
{
    TPM2B_PUBLIC key{};
    TPMT_PUBLIC &area = key.publicArea;
    area.type = TPM2_ALG_RSA;
    area.nameAlg = TPM2_ALG_SHA256;
    area.objectAttributes = TPMA_OBJECT_SIGN_ENCRYPT | TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                            TPMA_OBJECT_SENSITIVEDATAORIGIN | TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_NODA;
    if (restricted)
        area.objectAttributes |= TPMA_OBJECT_RESTRICTED;
    TPMS_RSA_PARMS &parameters = area.parameters.rsaDetail;
    parameters.symmetric.algorithm = TPM2_ALG_NULL;
    parameters.scheme.scheme = TPM2_ALG_RSASSA;
    parameters.scheme.details.rsassa.hashAlg = TPM2_ALG_SHA256;
    parameters.keyBits = 2048;
    return key;
}

evp_pkey public_key_of(const TPMT_PUBLIC &area)
{
    if (area.type != TPM2_ALG_RSA)
        return nullptr;
    constexpr unsigned long default_exponent = 65537; // what the TPM writes as 0
    const TPM2B_PUBLIC_KEY_RSA &modulus = area.unique.rsa;
    const unsigned long exponent = area.parameters.rsaDetail.exponent;
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> n(BN_bin2bn(modulus.buffer, modulus.size, nullptr),
                                                        BN_free);
    const std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(OSSL_PARAM_BLD_new(),
                                                                                  OSSL_PARAM_BLD_free);
    if (!n || !builder || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
        OSSL_PARAM_BLD_push_ulong(builder.get(), OSSL_PKEY_PARAM_RSA_E,
                                  exponent == 0 ? default_exponent : exponent) != 1)
        return nullptr;
    const std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> parameters(
        OSSL_PARAM_BLD_to_param(builder.get()), OSSL_PARAM_free);
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> maker(
        EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY *key = nullptr;
    if (!parameters || !maker || EVP_PKEY_fromdata_init(maker.get()) != 1 ||
        EVP_PKEY_fromdata(maker.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) != 1)
        return nullptr;
    return evp_pkey(key);
}

bool said(tpm_connection &connection, const char *what, TSS2_RC code)
{
    return code == TSS2_RC_SUCCESS || complain_of_status(what, tpm_connection_result(connection, code));
}

// TPM_RC_HANDLE, whichever of the command's handles it blames.
bool says_no_such_handle(TSS2_RC code)
{
    constexpr TSS2_RC which_mask = TPM2_RC_N_MASK | TPM2_RC_P;
    return (code & ~which_mask) == TPM2_RC_HANDLE;
}

bool name_of(tpm_connection &connection, ESYS_TR object, std::string &tpm_name)
{
    TPM2B_NAME *name = nullptr;
    const TSS2_RC code = Esys_TR_GetName(connection.esys, object, &name);
    const esys_ptr<TPM2B_NAME> owned(name);
    if (code == TSS2_RC_SUCCESS)
        tpm_name = hex_text(owned->name, owned->size);
    return code == TSS2_RC_SUCCESS;
}

// Makes a signing key under the root and loads it, for `loaded` to flush.
TSS2_RC create_loaded(tpm_connection &connection, const transient_object &root, bool restricted,
                      transient_object &loaded)
{
    TPM2B_SENSITIVE_CREATE sensitive{};
    sensitive.sensitive.userAuth.size = sizeof KOV_LOGIN_SECRET - 1;
    std::memcpy(sensitive.sensitive.userAuth.buffer, KOV_LOGIN_SECRET, sizeof KOV_LOGIN_SECRET - 1);
    const TPM2B_PUBLIC wanted = signing_key_template(restricted);
    TPM2B_PRIVATE *private_part = nullptr;
    TPM2B_PUBLIC *public_part = nullptr;
    TPM2B_DATA outside{};
    TPML_PCR_SELECTION no_pcrs{};
    TSS2_RC code =
        Esys_Create(connection.esys, root.handle, ESYS_TR_PASSWORD, NO_SESSION, NO_SESSION, &sensitive,
                    &wanted, &outside, &no_pcrs, &private_part, &public_part, nullptr, nullptr, nullptr);
    const esys_ptr<TPM2B_PRIVATE> owned_private(private_part);
    const esys_ptr<TPM2B_PUBLIC> owned_public(public_part);
    if (code == TSS2_RC_SUCCESS)
        code = Esys_Load(connection.esys, root.handle, ESYS_TR_PASSWORD, NO_SESSION, NO_SESSION,
                         owned_private.get(), owned_public.get(), &loaded.handle);
    loaded.esys = connection.esys;
    return code;
}

} // namespace

transient_object::~transient_object()
{
    if (handle != ESYS_TR_NONE)
        Esys_FlushContext(esys, handle);
}

bool tpm_connect(std::unique_ptr<tpm_connection> &connection)
{
    constexpr kov_ipc_callbacks linux_ipc{kov_linux_ipc_init,  kov_linux_ipc_cleanup, kov_linux_ipc_open,
                                          kov_linux_ipc_close, kov_linux_ipc_send,    kov_linux_ipc_receive};
    linux_ipc_set_command_bound(KEY_MAKING_BOUND);
    std::uint64_t device = 0;
    std::uint64_t info = 0;
    if (platform_get_kov_device_info(&device, &info) != 0)
        return complain_of_status("no TPM", KOV_ERR_SETTING);
    const kov_status status = tpm_connection_open(linux_ipc, device, connection);
    return status == KOV_SUCCESS || complain_of_status("no TPM", status);
}

bool tpm_make_storage_root(tpm_connection &connection, transient_object &root)
{
    TPM2B_SENSITIVE_CREATE sensitive{};
    const TPM2B_PUBLIC wanted = storage_root_template();
    TPM2B_DATA outside{};
    TPML_PCR_SELECTION no_pcrs{};
    const TSS2_RC code = Esys_CreatePrimary(connection.esys, ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, NO_SESSION,
                                            NO_SESSION, &sensitive, &wanted, &outside, &no_pcrs, &root.handle,
                                            nullptr, nullptr, nullptr, nullptr);
    root.esys = connection.esys;
    return said(connection, "cannot make the storage root key", code);
}

bool tpm_make_key(tpm_connection &connection, const transient_object &root, bool restricted, made_key &key)
{
    TSS2_RC code = create_loaded(connection, root, restricted, key.object);
    if (!said(connection, "cannot make a key", code))
        return false;
    TPM2B_PUBLIC *area = nullptr;
    code = Esys_ReadPublic(connection.esys, key.object.handle, NO_SESSION, NO_SESSION, NO_SESSION, &area,
                           nullptr, nullptr);
    const esys_ptr<TPM2B_PUBLIC> owned(area);
    if (!said(connection, "cannot read a key back", code) ||
        !name_of(connection, key.object.handle, key.tpm_name))
        return false;
    key.public_key = public_key_of(owned->publicArea);
    return key.public_key || complain_of_openssl("cannot take over a key");
}

bool tpm_free_handles(tpm_connection &connection, std::size_t count, std::vector<std::uint32_t> &handles)
{
    handles.clear();
    std::vector<std::uint32_t> taken;
    if (!said(connection, "cannot list the persistent keys",
              tpm_connection_handles(connection, KEY_HANDLE_FIRST, taken)))
        return false;
    for (std::uint32_t handle = KEY_HANDLE_FIRST; handle <= KEY_HANDLE_LAST && handles.size() < count;
         ++handle) {
        if (std::find(taken.begin(), taken.end(), handle) == taken.end())
            handles.push_back(handle);
    }
    return handles.size() == count || complain("no persistent handle is free");
}

bool tpm_make_persistent(tpm_connection &connection, const made_key &key, std::uint32_t handle)
{
    ESYS_TR persistent = ESYS_TR_NONE;
    const TSS2_RC code = Esys_EvictControl(connection.esys, ESYS_TR_RH_OWNER, key.object.handle,
                                           ESYS_TR_PASSWORD, NO_SESSION, NO_SESSION, handle, &persistent);
    return said(connection, "cannot make a key persistent", code);
}

bool tpm_evict_key(tpm_connection &connection, std::uint32_t handle, const std::string &tpm_name)
{
    ESYS_TR object = ESYS_TR_NONE;
    std::string found;
    TSS2_RC code =
        Esys_TR_FromTPMPublic(connection.esys, handle, NO_SESSION, NO_SESSION, NO_SESSION, &object);
    if (code != TSS2_RC_SUCCESS)
        return says_no_such_handle(code) || said(connection, "cannot look at an old key", code);
    if (!name_of(connection, object, found) || found != tpm_name) {
        Esys_TR_Close(connection.esys, &object);
        return true;
    }
    ESYS_TR gone = ESYS_TR_NONE;
    code = Esys_EvictControl(connection.esys, ESYS_TR_RH_OWNER, object, ESYS_TR_PASSWORD, NO_SESSION,
                             NO_SESSION, handle, &gone);
    return said(connection, "cannot remove an old key", code);
}

kov_status tpm_read_key(tpm_connection &connection, std::uint32_t handle, std::string &tpm_name,
                        evp_pkey &public_key)
{
    ESYS_TR object = ESYS_TR_NONE;
    TSS2_RC code =
        Esys_TR_FromTPMPublic(connection.esys, handle, NO_SESSION, NO_SESSION, NO_SESSION, &object);
    if (code != TSS2_RC_SUCCESS)
        return tpm_connection_result(connection, code);
    TPM2B_PUBLIC *area = nullptr;
    code =
        Esys_ReadPublic(connection.esys, object, NO_SESSION, NO_SESSION, NO_SESSION, &area, nullptr, nullptr);
    const esys_ptr<TPM2B_PUBLIC> owned(area);
    if (code == TSS2_RC_SUCCESS) {
        name_of(connection, object, tpm_name);
        public_key = public_key_of(owned->publicArea);
    }
    Esys_TR_Close(connection.esys, &object);
    return tpm_connection_result(connection, code);
}
