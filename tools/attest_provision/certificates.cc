#include "tools/attest_provision/certificates.h"

#include <ctime>

#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "tools/attest_provision/report.h"

namespace {

constexpr int SERIAL_BITS = 159;                    // RFC 5280: at most 20 bytes, positive
constexpr long CLOCK_SLACK_SECONDS = 24L * 60 * 60; // a verifier's clock may be behind

struct extension {
    int nid;
    const char *value;
};
// TCG EK credential profile: what an attestation-key certificate is for.
constexpr char ATTESTATION_KEY_USAGE[] = "2.23.133.8.3";

std::vector<extension> extensions_of(certificate_kind kind)
{
    switch (kind) {
    case certificate_kind::root_ca:
        return {{NID_basic_constraints, "critical,CA:TRUE"}, {NID_key_usage, "critical,keyCertSign,cRLSign"}};
    case certificate_kind::issuing_ca:
        return {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                {NID_key_usage, "critical,keyCertSign,cRLSign"}};
    case certificate_kind::device_identity:
        return {{NID_basic_constraints, "critical,CA:FALSE"}, {NID_key_usage, "critical,digitalSignature"}};
    case certificate_kind::attestation:
        return {{NID_basic_constraints, "critical,CA:FALSE"},
                {NID_key_usage, "critical,digitalSignature"},
                {NID_ext_key_usage, ATTESTATION_KEY_USAGE}};
    }
    return {};
}

bool add_name(X509 *certificate, const certificate_request &request)
{
    X509_NAME *subject = X509_get_subject_name(certificate);
    const auto add = [subject](const char *field, const std::string &text) {
        return X509_NAME_add_entry_by_txt(subject, field, MBSTRING_UTF8,
                                          reinterpret_cast<const unsigned char *>(text.c_str()), -1, -1,
                                          0) == 1;
    };
    return (request.organization.empty() || add("O", request.organization)) && add("CN", request.common_name);
}

bool add_serial_and_dates(X509 *certificate, const X509 *issuer)
{
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> serial(BN_new(), BN_free);
    if (!serial || BN_rand(serial.get(), SERIAL_BITS, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) != 1 ||
        BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)) == nullptr ||
        X509_gmtime_adj(X509_getm_notBefore(certificate), -CLOCK_SLACK_SECONDS) == nullptr)
        return false;
    if (issuer != nullptr)
        return X509_set1_notAfter(certificate, X509_get0_notAfter(issuer)) == 1;
    return X509_time_adj_ex(X509_getm_notAfter(certificate), DEMONSTRATION_YEARS * 365, 0, nullptr) !=
           nullptr;
}

bool add_extensions(X509 *certificate, const X509 *issuer, certificate_kind kind)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, const_cast<X509 *>(issuer != nullptr ? issuer : certificate), certificate,
                   nullptr, nullptr, 0);
    std::vector<extension> extensions = extensions_of(kind);
    extensions.push_back({NID_subject_key_identifier, "hash"});
    extensions.push_back({NID_authority_key_identifier, "keyid"});
    for (const extension &one : extensions) {
        const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> made(
            X509V3_EXT_conf_nid(nullptr, &context, one.nid, one.value), X509_EXTENSION_free);
        if (!made || X509_add_ext(certificate, made.get(), -1) != 1)
            return false;
    }
    return true;
}

// Null where the key's scheme brings its own (Ed25519).
const EVP_MD *digest_for(const EVP_PKEY *key)
{
    return EVP_PKEY_is_a(key, "ED25519") == 1 || EVP_PKEY_is_a(key, "ED448") == 1 ? nullptr : EVP_sha256();
}

} // namespace

x509_certificate certificate_issue(const certificate_request &request)
{
    x509_certificate made(X509_new());
    X509 *certificate = made.get();
    if (made && X509_set_version(certificate, X509_VERSION_3) == 1 && add_name(certificate, request) &&
        X509_set_issuer_name(
            certificate, X509_get_subject_name(request.issuer != nullptr ? request.issuer : certificate)) ==
            1 &&
        add_serial_and_dates(certificate, request.issuer) &&
        X509_set_pubkey(certificate, request.subject_key) == 1 &&
        add_extensions(certificate, request.issuer, request.kind) &&
        X509_sign(certificate, request.issuer_key, digest_for(request.issuer_key)) > 0)
        return made;
    complain_of_openssl("cannot issue the certificate \"" + request.common_name + "\"");
    return nullptr;
}

std::vector<std::uint8_t> certificate_der(const X509 *certificate)
{
    std::uint8_t *bytes = nullptr;
    const int length = i2d_X509(certificate, &bytes);
    if (length <= 0)
        return {};
    const std::vector<std::uint8_t> der(bytes, bytes + length);
    OPENSSL_free(bytes);
    return der[0] == 0x30 && der[1] == 0x82 ? der : std::vector<std::uint8_t>();
}

x509_certificate certificate_parse(const std::vector<std::uint8_t> &der, std::vector<std::uint8_t> *rest)
{
    const std::uint8_t *at = der.data();
    x509_certificate parsed(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    if (rest != nullptr)
        rest->assign(parsed ? at : der.data(), der.data() + der.size());
    return parsed;
}

bool certificate_path_valid(X509 *leaf, X509 *issuing_ca, X509 *root, std::string *reason)
{
    const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> trusted(X509_STORE_new(), X509_STORE_free);
    const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> check(X509_STORE_CTX_new(),
                                                                                X509_STORE_CTX_free);
    const std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509) *)> between(
        sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
    *reason = "out of memory";
    if (!trusted || !check || !between || X509_STORE_add_cert(trusted.get(), root) != 1 ||
        sk_X509_push(between.get(), issuing_ca) <= 0 ||
        X509_STORE_CTX_init(check.get(), trusted.get(), leaf, between.get()) != 1)
        return false;
    const bool valid = X509_verify_cert(check.get()) == 1;
    *reason = X509_verify_cert_error_string(X509_STORE_CTX_get_error(check.get()));
    return valid;
}

std::string certificate_subject(const X509 *certificate)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), BIO_free);
    if (!text || X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253) < 0)
        return {};
    char *bytes = nullptr;
    const long length = BIO_get_mem_data(text.get(), &bytes);
    return {bytes, static_cast<std::size_t>(length)};
}

std::string certificate_not_after(const X509 *certificate)
{
    tm date{};
    char text[sizeof "2026-01-01"] = "?";
    if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &date) == 1)
        std::strftime(text, sizeof text, "%Y-%m-%d", &date);
    return text;
}
