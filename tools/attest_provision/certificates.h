// X.509, as far as provisioning needs it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

struct evp_pkey_deleter {
    void operator()(EVP_PKEY *key) const noexcept { EVP_PKEY_free(key); }
};
using evp_pkey = std::unique_ptr<EVP_PKEY, evp_pkey_deleter>;
struct x509_deleter {
    void operator()(X509 *certificate) const noexcept { X509_free(certificate); }
};
using x509_certificate = std::unique_ptr<X509, x509_deleter>;

enum class certificate_kind { root_ca, issuing_ca, device_identity, attestation };

struct certificate_request {
    certificate_kind kind;
    std::string common_name;
    std::string organization; // empty: none
    EVP_PKEY *subject_key;
    const X509 *issuer; // null: self-signed
    EVP_PKEY *issuer_key;
};

// Null on failure, with the reason said. A certificate ends when its issuer's does; a self-signed one after
// DEMONSTRATION_YEARS.
inline constexpr int DEMONSTRATION_YEARS = 20;
x509_certificate certificate_issue(const certificate_request &request);

// DER; empty on failure. Has the four-byte SEQUENCE header that the chain object's readers count on, or is
// refused.
std::vector<std::uint8_t> certificate_der(const X509 *certificate);
// The certificate at the start of the bytes; `rest` gets what follows. Null when there is none.
x509_certificate certificate_parse(const std::vector<std::uint8_t> &der, std::vector<std::uint8_t> *rest);

// Whether the path from the leaf over the CA ends at the root and holds today; otherwise *reason says why
// not.
bool certificate_path_valid(X509 *leaf, X509 *issuing_ca, X509 *root, std::string *reason);

std::string certificate_subject(const X509 *certificate);
std::string certificate_not_after(const X509 *certificate);
