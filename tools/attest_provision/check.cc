// Whether a provisioned node is as its manifest says: a line for each point, "ok" or "FAULT".
#include <algorithm>
#include <set>

#include <openssl/rand.h>

#include <tss2/tss2_mu.h>

#include "platform/owners.h"
#include "platform/small_file.h"
#include "platform/tpm/reference_list.h"
#include "tools/attest_provision/commands.h"
#include "tools/attest_provision/report.h"
#include "tools/attest_provision/tpm_keys.h"

namespace {

struct findings {
    int faults = 0;

    void point(bool good, const std::string &what, const std::string &reason)
    {
        say("%s %s%s%s\n", good ? "ok   " : "FAULT", what.c_str(), good ? "" : ": ",
            good ? "" : reason.c_str());
        faults += good ? 0 : 1;
    }
};

struct certificates {
    x509_certificate own;
    x509_certificate issuing_ca;
    x509_certificate root;
};

// An object through the client library, as the agent reads it.
bool read_object(kovc_session *session, const char *name, findings &found, std::vector<std::uint8_t> &content)
{
    std::uint8_t *data = nullptr;
    std::uint32_t length = 0;
    const kov_status status = kovc_so_read(session, 0, name, &data, &length);
    const malloc_ptr<std::uint8_t> owned(data);
    content.assign(data, data + length);
    found.point(status == KOV_SUCCESS && length > 0, std::string("object ") + name + " is readable",
                status == KOV_SUCCESS ? "it is empty" : kov_status_string(status));
    return status == KOV_SUCCESS && length > 0;
}

void check_certificates(kovc_session *session, const certified_key &key, findings &found, certificates &read)
{
    std::vector<std::uint8_t> content;
    std::vector<std::uint8_t> rest;
    if (read_object(session, key.certificate_object, found, content)) {
        read.own = certificate_parse(content, &rest);
        found.point(read.own && rest.empty(), std::string(key.certificate_object) + " is a certificate",
                    "it cannot be parsed");
    }
    if (read_object(session, key.chain_object, found, content)) {
        read.issuing_ca = certificate_parse(content, &rest);
        read.root = certificate_parse(rest, &content);
        found.point(read.issuing_ca && read.root && content.empty(),
                    std::string(key.chain_object) + " is an issuing CA and a root", "it cannot be parsed");
    }
    if (!read.own || !read.issuing_ca || !read.root)
        return;
    std::string reason;
    const bool valid =
        certificate_path_valid(read.own.get(), read.issuing_ca.get(), read.root.get(), &reason);
    found.point(valid, std::string(key.certificate_object) + " is valid under " + key.chain_object, reason);
}

// The TPM holds the key that was provisioned, and the certificate is for it.
void check_key(tpm_connection &tpm, const manifest &node, const certified_key &key, const certificates &read,
               findings &found)
{
    const manifest_key *recorded = manifest_find_key(node, key.key_name);
    found.point(recorded != nullptr, std::string("key ") + key.key_name + " is in the manifest", "it is not");
    if (recorded == nullptr)
        return;
    std::string tpm_name;
    evp_pkey public_key;
    const kov_status status = tpm_read_key(tpm, recorded->handle, tpm_name, public_key);
    found.point(status == KOV_SUCCESS, std::string("key ") + key.key_name + " is in the TPM",
                kov_status_string(status));
    if (status != KOV_SUCCESS)
        return;
    found.point(tpm_name == hex_text(recorded->tpm_name.data(), recorded->tpm_name.size()),
                std::string("key ") + key.key_name + " is the one provisioned",
                "another key is at its handle");
    if (read.own)
        found.point(public_key && EVP_PKEY_eq(X509_get0_pubkey(read.own.get()), public_key.get()) == 1,
                    std::string(key.certificate_object) + " certifies " + key.key_name,
                    "it is for another key");
}

bool verifies(EVP_PKEY *key, const std::vector<std::uint8_t> &data,
              const std::vector<std::uint8_t> &signature)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> state(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    return state && EVP_DigestVerifyInit(state.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
           EVP_DigestVerify(state.get(), signature.data(), signature.size(), data.data(), data.size()) == 1;
}

kov_status sign(kovc_session *session, const char *key_name, const std::vector<std::uint8_t> &data,
                std::vector<std::uint8_t> &signature)
{
    kovc_signing *signing = nullptr;
    std::uint8_t *made = nullptr;
    std::uint32_t length = 0;
    kov_status status = kovc_sign_init(session, KOV_LOGIN_USER, key_name, KOV_ALG_SHA256, &signing);
    if (status == KOV_SUCCESS)
        status = kovc_sign_update(session, signing, data.data(), static_cast<std::uint32_t>(data.size()));
    if (status == KOV_SUCCESS)
        status = kovc_sign_final(session, signing, &made, &length);
    const malloc_ptr<std::uint8_t> owned(made);
    signature.assign(made, made + length);
    return status;
}

kov_status quote(kovc_session *session, const char *key_name, std::vector<std::uint8_t> &quoted,
                 std::vector<std::uint8_t> &signature)
{
    std::uint8_t *attest = nullptr;
    std::uint8_t *made = nullptr;
    std::uint32_t attest_length = 0;
    std::uint32_t length = 0;
    const kov_status status =
        kovc_tpm2_pcr_quote(session, 0, key_name, KOV_ALG_SHA256, 1u << REFERENCE_PCR, KOV_ALG_SHA256,
                            nullptr, 0, &attest, &attest_length, &made, &length);
    const malloc_ptr<std::uint8_t> owned_attest(attest);
    const malloc_ptr<std::uint8_t> owned(made);
    quoted.assign(attest, attest + attest_length);
    std::size_t offset = 0;
    TPMT_SIGNATURE parsed{};
    if (status == KOV_SUCCESS &&
        Tss2_MU_TPMT_SIGNATURE_Unmarshal(made, length, &offset, &parsed) == TSS2_RC_SUCCESS)
        signature.assign(parsed.signature.rsassa.sig.buffer,
                         parsed.signature.rsassa.sig.buffer + parsed.signature.rsassa.sig.size);
    return status;
}

// The agent's secret authorises the key, and what the key signs stands under its certificate.
void check_use(kovc_session *session, const certified_key &key, const certificates &read, findings &found)
{
    std::vector<std::uint8_t> data(32);
    std::vector<std::uint8_t> signature;
    kov_status status = KOV_ERR_CRYPTO;
    if (key.restricted)
        status = quote(session, key.key_name, data, signature);
    else if (RAND_bytes(data.data(), static_cast<int>(data.size())) == 1)
        status = sign(session, key.key_name, data, signature);
    const std::string what = std::string(key.key_name) + (key.restricted ? " quotes" : " signs");
    found.point(status == KOV_SUCCESS, what, kov_status_string(status));
    if (status == KOV_SUCCESS && read.own)
        found.point(verifies(X509_get0_pubkey(read.own.get()), data, signature),
                    what + " what its certificate verifies", "it does not verify");
}

void check_board(const manifest &node, findings &found)
{
    std::vector<manifest_identifier> board;
    if (!reference_list_make(board_identifiers_read(this_board()), board)) {
        found.point(false, "the board's identifiers", "they cannot be digested");
        return;
    }
    std::set<std::string> known;
    int before = found.faults;
    for (const manifest_identifier &recorded : node.identifiers) {
        known.insert(recorded.place);
        const auto now = std::find_if(board.begin(), board.end(), [&](const manifest_identifier &one) {
            return one.place == recorded.place;
        });
        if (now == board.end())
            found.point(false, recorded.place, "it is gone");
        else if (now->digests != recorded.digests)
            found.point(false, recorded.place, "it was changed");
    }
    for (const manifest_identifier &one : board) {
        if (!known.contains(one.place))
            found.point(false, one.place, "it was added");
    }
    if (found.faults == before)
        found.point(true, "the board is the one of the reference list", "");
}

void check_binding(tpm_connection &tpm, const manifest &node, findings &found)
{
    std::vector<bank_binding> banks;
    const kov_status status = reference_binding_read(tpm, node.identifiers, banks);
    if (status != KOV_SUCCESS)
        found.point(false, "PCR 15", kov_status_string(status));
    for (const bank_binding &one : banks)
        found.point(one.state == pcr_binding::bound,
                    std::string("PCR 15 (") + one.bank->name + ") holds the reference list",
                    one.state == pcr_binding::zero ? "it was not extended" : "it holds something else");
}

kov_status log_in(kovc_context *context, kovc_session **session)
{
    kov_login_context login{KOV_LOGIN_KIND_SECRET, {}, {}};
    std::copy(std::begin(KOV_LOGIN_USER), std::end(KOV_LOGIN_USER), login.user_name);
    std::copy(std::begin(KOV_LOGIN_SECRET), std::end(KOV_LOGIN_SECRET), login.secret);
    std::uint64_t device = 0;
    std::uint64_t info = 0;
    if (platform_get_kov_device_info(&device, &info) != 0)
        return KOV_ERR_SETTING;
    return kovc_app_login(context, device, &login, session);
}

// What the agent would do with the node. The login also extends PCR 15 where the agent would.
bool check_through_client(findings &found, certificates (&read)[std::size(CERTIFIED_KEYS)])
{
    kovc_context *context = nullptr;
    kovc_session *session = nullptr;
    kov_status status = kov_register_ipc_cb(kov_linux_ipc_init, kov_linux_ipc_cleanup, kov_linux_ipc_open,
                                            kov_linux_ipc_close, kov_linux_ipc_send, kov_linux_ipc_receive);
    if (status == KOV_SUCCESS)
        status = kov_register_mem_cb(kov_linux_mem_alloc, kov_linux_mem_free);
    if (status == KOV_SUCCESS)
        status = kovc_init_context(&context, KOV_LOGIN_USER, 0);
    const scope_exit release([&] { kovc_release_context(&context); });
    if (status == KOV_SUCCESS)
        status = log_in(context, &session);
    if (status != KOV_SUCCESS)
        return complain_of_status("no TPM", status);
    for (std::size_t i = 0; i < std::size(CERTIFIED_KEYS); ++i) {
        check_certificates(session, CERTIFIED_KEYS[i], found, read[i]);
        check_use(session, CERTIFIED_KEYS[i], read[i], found);
    }
    return kovc_app_logout(&session) == KOV_SUCCESS;
}

} // namespace

int check(const std::string &manifest_path)
{
    manifest node;
    const kov_status status = manifest_load(manifest_path, node);
    if (status != KOV_SUCCESS) {
        complain_of_status(manifest_path, status);
        return EXIT_REFUSED;
    }
    findings found;
    certificates read[std::size(CERTIFIED_KEYS)];
    if (!check_through_client(found, read))
        return EXIT_FAILED;
    std::unique_ptr<tpm_connection> tpm;
    if (!tpm_connect(tpm))
        return EXIT_FAILED;
    for (std::size_t i = 0; i < std::size(CERTIFIED_KEYS); ++i)
        check_key(*tpm, node, CERTIFIED_KEYS[i], read[i], found);
    check_board(node, found);
    check_binding(*tpm, node, found);
    if (!tpm_connection_whole(*tpm))
        return EXIT_FAILED;
    say("%d %s\n", found.faults, found.faults == 1 ? "fault" : "faults");
    return found.faults == 0 ? EXIT_DONE : EXIT_REFUSED;
}
