#include "attestctl/certificate_text.h"

#include <array>

#include <openssl/err.h>

#include "attestctl/text.h"

namespace {

// What `print` writes into a memory BIO.
template <typename Print>
std::string printed(Print print, std::size_t max_bytes = MAX_TEXT_BYTES)
{
    const bio_owner bio(BIO_new(BIO_s_mem()));
    if (!bio || print(bio.get()) <= 0)
        return "(unreadable)";
    char *data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return printable({data, static_cast<std::size_t>(length)}, max_bytes, backslash::single);
}

std::string name_text(const X509_NAME *name, std::size_t max_bytes = MAX_TEXT_BYTES)
{
    constexpr unsigned long UTF8_ONE_LINE = (XN_FLAG_RFC2253 | XN_FLAG_SEP_CPLUS_SPC) & ~ASN1_STRFLGS_ESC_MSB;
    return printed([name](BIO *out) { return X509_NAME_print_ex(out, name, 0, UTF8_ONE_LINE) < 0 ? 0 : 1; },
                   max_bytes);
}

std::string time_text(const ASN1_TIME *time)
{
    return printed([time](BIO *out) { return ASN1_TIME_print(out, time); });
}

std::string fingerprint(std::string_view der)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    if (EVP_Digest(der.data(), der.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1)
        return "(unknown)";
    return hex({reinterpret_cast<const char *>(digest.data()), length});
}

} // namespace

x509_owner read_certificate(std::string_view der, std::string &error)
{
    const auto *const begin = reinterpret_cast<const unsigned char *>(der.data());
    const auto *at = begin;
    x509_owner certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    ERR_clear_error();
    if (!certificate) {
        error = "no DER certificate";
        return nullptr;
    }
    const auto taken = static_cast<std::size_t>(at - begin);
    if (taken != der.size()) {
        error = counted(der.size() - taken, "byte") + " after the certificate";
        return nullptr;
    }
    unsigned char *again = nullptr;
    const int length = i2d_X509(certificate.get(), &again);
    const bool same = length >= 0 && der == std::string_view(reinterpret_cast<char *>(again),
                                                             static_cast<std::size_t>(length));
    OPENSSL_free(again);
    if (same)
        return certificate;
    error = "a certificate in another encoding than DER";
    return nullptr;
}

std::string subject_text(const X509 &certificate)
{
    constexpr std::size_t MOST_BYTES = 160; // several stand on a line
    return '"' + name_text(X509_get_subject_name(&certificate), MOST_BYTES) + '"';
}

certificate_facts facts_of(const X509 &certificate, std::string_view der)
{
    certificate_facts facts = {name_text(X509_get_subject_name(&certificate)),
                               name_text(X509_get_issuer_name(&certificate)),
                               time_text(X509_get0_notBefore(&certificate)),
                               time_text(X509_get0_notAfter(&certificate)),
                               "(unreadable)",
                               fingerprint(der)};
    const EVP_PKEY *const key = X509_get0_pubkey(&certificate);
    const char *const type = key != nullptr ? EVP_PKEY_get0_type_name(key) : nullptr;
    if (type != nullptr)
        facts.key = printable(type, 32) + format(", %d bits", EVP_PKEY_get_bits(key));
    ERR_clear_error();
    return facts;
}

std::vector<std::string> certificate_lines(std::string_view der)
{
    std::string error;
    const x509_owner certificate = read_certificate(der, error);
    if (!certificate)
        return {error + ": " + hex_preview(der)};
    const certificate_facts facts = facts_of(*certificate, der);
    return {
        "subject  " + facts.subject,
        "issuer   " + facts.issuer,
        "valid    " + facts.valid_from + " to " + facts.valid_to,
        "sha256   " + facts.sha256,
    };
}
