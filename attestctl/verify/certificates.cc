#include "attestctl/verify/certificates.h"

#include <array>

#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "attestctl/certificate_names.h"
#include "attestctl/certificate_text.h"
#include "attestctl/text.h"

namespace api = remote_attestation_api;

namespace {

constexpr std::uint32_t RSASSA_SHA256 = 2;
constexpr std::string_view SIGNED_ALGORITHM("\0\0\0\2", 4); // stands between nonce and certificates

// Keys and digests of at least 112 bits of strength: RSA of 2048 bits, no SHA-1.
constexpr int SECURITY_LEVEL = 2;

constexpr std::string_view ATTESTATION_KEY_USAGE = "2.23.133.8.3";

using usage_owner = std::unique_ptr<EXTENDED_KEY_USAGE, openssl_deleter<EXTENDED_KEY_USAGE_free>>;
using store_owner = std::unique_ptr<X509_STORE, openssl_deleter<X509_STORE_free>>;
using store_ctx_owner = std::unique_ptr<X509_STORE_CTX, openssl_deleter<X509_STORE_CTX_free>>;

void delete_stack(STACK_OF(X509) * stack)
{
    sk_X509_free(stack); // not the certificates in it
}
using stack_owner = std::unique_ptr<STACK_OF(X509), openssl_deleter<delete_stack>>;

std::string name_problem(const std::string &got, const std::string &asked)
{
    if (got == asked || (got == ATTESTATION_KEY_NAME && asked != IDENTITY_NAME))
        return {};
    return "\"" + printable(got, 64) + "\" came for \"" + printable(asked, 64) + '"';
}

// Whether the path that was found goes through all three certificates. The CA may be the root itself.
bool uses_all(const STACK_OF(X509) * path, const certificate_set &set)
{
    const int length = sk_X509_num(path);
    if (length == 2)
        return X509_cmp(set.ca.get(), set.root.get()) == 0;
    return length == 3 && X509_cmp(sk_X509_value(path, 1), set.ca.get()) == 0;
}

// Path validation: signatures, validity, CA flag and path length, key usage of the CAs, strength. Whether its
// root is worth anything is not asked here. Empty: valid.
std::string path_problem(const certificate_set &set)
{
    const store_owner anchors(X509_STORE_new());
    const store_ctx_owner context(X509_STORE_CTX_new());
    const stack_owner between(sk_X509_new_null());
    if (!anchors || !context || !between || X509_STORE_add_cert(anchors.get(), set.root.get()) != 1 ||
        sk_X509_push(between.get(), set.ca.get()) <= 0 ||
        X509_STORE_CTX_init(context.get(), anchors.get(), set.device.get(), between.get()) != 1)
        return "out of memory";
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(context.get()), SECURITY_LEVEL);
    const bool valid = X509_verify_cert(context.get()) == 1;
    ERR_clear_error();
    if (!valid) {
        const int depth = X509_STORE_CTX_get_error_depth(context.get());
        return std::string(depth == 0   ? "the device's"
                           : depth == 1 ? "the CA's"
                                        : "the root's") +
               " certificate: " + X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
    }
    if (!uses_all(X509_STORE_CTX_get0_chain(context.get()), set))
        return "the CA's certificate is not between the root's and the device's";
    if ((X509_get_key_usage(set.device.get()) & KU_DIGITAL_SIGNATURE) == 0)
        return "the device's key is not for signatures";
    return {};
}

finding check_chain(const certificate_set &set, const trusted_roots &roots)
{
    if (!set.root || !set.ca || !set.device)
        return not_made("not all certificates are usable");
    if (std::string problem = path_problem(set); !problem.empty())
        return failed(std::move(problem));
    return passed(
        subject_text(*set.device) + ", by " + subject_text(*set.ca) + ", by " + subject_text(*set.root) +
        (roots.vouched_for() ? ""
                             : "; UNPINNED: without --root nothing but this answer vouches for the root"));
}

finding check_root(const api::SystemCertificates &record, const trusted_roots &roots)
{
    const bool known = !record.certs().empty() && is_trusted(roots, record.certs(0).data());
    return known ? passed("is in " + roots.file) : failed("is not in " + roots.file);
}

finding check_nonce(const api::SystemCertificates &record, const std::string &nonce)
{
    if (nonce.empty())
        return not_made("no nonce was sent: the answer may be an old one");
    if (!record.has_nonce())
        return failed("the record has no nonce");
    return record.nonce() == nonce ? passed("the one that was sent")
                                   : failed("not the one that was sent: " + hex_preview(record.nonce()));
}

bool is_signed_by(EVP_PKEY *key, const std::string &data, const std::string &signature)
{
    const md_ctx_owner state(EVP_MD_CTX_new());
    EVP_PKEY_CTX *scheme = nullptr; // belongs to `state`
    const bool good = state && EVP_DigestVerifyInit(state.get(), &scheme, EVP_sha256(), nullptr, key) == 1 &&
                      EVP_PKEY_CTX_set_rsa_padding(scheme, RSA_PKCS1_PADDING) == 1 &&
                      EVP_DigestVerify(state.get(), reinterpret_cast<const unsigned char *>(signature.data()),
                                       signature.size(), reinterpret_cast<const unsigned char *>(data.data()),
                                       data.size()) == 1;
    ERR_clear_error();
    return good;
}

finding check_signature(const api::SystemCertificates &record, const std::string &nonce, const X509 *identity)
{
    if (nonce.empty())
        return not_made("no nonce was sent: nothing is signed");
    if (!record.has_signature())
        return failed("the record has no signature");
    if (record.sig_alg() != RSASSA_SHA256)
        return failed(format("by algorithm %u, which is none that a node has", record.sig_alg()));
    if (identity == nullptr)
        return not_made("there is no certificate of the device identity, whose key signs");
    EVP_PKEY *key = X509_get0_pubkey(identity);
    if (key == nullptr || EVP_PKEY_is_a(key, "RSA") != 1)
        return failed("the device identity's key is no RSA key");
    std::string data = nonce;
    data += SIGNED_ALGORITHM;
    for (const api::CERTIFICATE_ENTRY &entry : record.certs())
        data += entry.data();
    return is_signed_by(key, data, record.signature())
               ? passed("nonce and certificates, by the key of " + subject_text(*identity))
               : failed("is none of the device identity's key over nonce and certificates");
}

} // namespace

certificate_set read_certificates(const api::SystemCertificates &record, const std::string &asked_name)
{
    certificate_set set;
    struct place {
        const char *what;
        x509_owner *into;
    };
    const std::array<place, 3> places = {
        {{"the root's", &set.root}, {"the CA's", &set.ca}, {"the device's", &set.device}}};
    if (record.certs_size() != static_cast<int>(places.size())) {
        set.problem =
            counted(static_cast<std::uint64_t>(record.certs_size()), "certificate") + " instead of 3";
        return set;
    }
    for (int i = 0; i < record.certs_size(); ++i) {
        std::string error;
        *places[i].into = read_certificate(record.certs(i).data(), error);
        if (!error.empty() && set.problem.empty())
            set.problem = std::string(places[i].what) + ": " + error;
    }
    if (set.problem.empty())
        set.problem = name_problem(record.certs(2).name(), asked_name);
    return set;
}

bool is_for_attestation(const X509 &certificate)
{
    const usage_owner usage(static_cast<EXTENDED_KEY_USAGE *>(
        X509_get_ext_d2i(&certificate, NID_ext_key_usage, nullptr, nullptr)));
    bool found = false;
    for (int i = 0; i < sk_ASN1_OBJECT_num(usage.get()); ++i) {
        std::array<char, 64> text{};
        OBJ_obj2txt(text.data(), text.size(), sk_ASN1_OBJECT_value(usage.get(), i), 1);
        found = found || ATTESTATION_KEY_USAGE == text.data();
    }
    return found;
}

void check_certificates(check_list &list, const std::string &subject, const api::SystemCertificates &record,
                        const certificate_set &set, const std::string &nonce, const X509 *identity,
                        const trusted_roots &roots)
{
    add(list, subject + " certificates",
        set.problem.empty() ? passed("root, CA and \"" + printable(record.certs(2).name(), 64) + '"')
                            : failed(set.problem));
    add(list, subject + " chain", check_chain(set, roots));
    if (roots.pinned())
        add(list, subject + " root", check_root(record, roots));
    add(list, subject + " nonce", check_nonce(record, nonce));
    add(list, subject + " signature", check_signature(record, nonce, identity));
}
