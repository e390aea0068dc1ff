#include "attestctl/certificate_text.h"

#include <array>
#include <memory>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "attestctl/text.h"

namespace {

template <auto Free>
struct freer {
    template <typename T>
    void operator()(T *object) const
    {
        Free(object);
    }
};
using x509_owner = std::unique_ptr<X509, freer<X509_free>>;
using bio_owner = std::unique_ptr<BIO, freer<BIO_free>>;

// What `print` writes into a memory BIO.
template <typename Print>
std::string printed(Print print)
{
    const bio_owner bio(BIO_new(BIO_s_mem()));
    if (!bio || print(bio.get()) <= 0)
        return "(unreadable)";
    char *data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return printable({data, static_cast<std::size_t>(length)}, MAX_TEXT_BYTES, backslash::single);
}

std::string name_text(const X509_NAME *name)
{
    constexpr unsigned long UTF8_ONE_LINE = (XN_FLAG_RFC2253 | XN_FLAG_SEP_CPLUS_SPC) & ~ASN1_STRFLGS_ESC_MSB;
    return printed([name](BIO *out) { return X509_NAME_print_ex(out, name, 0, UTF8_ONE_LINE) < 0 ? 0 : 1; });
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

std::vector<std::string> certificate_lines(std::string_view der)
{
    const auto *at = reinterpret_cast<const unsigned char *>(der.data());
    const auto *const end = at + der.size();
    const x509_owner certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    if (!certificate || at != end) {
        ERR_clear_error();
        return {"no DER certificate: " + hex_preview(der)};
    }
    return {
        "subject  " + name_text(X509_get_subject_name(certificate.get())),
        "issuer   " + name_text(X509_get_issuer_name(certificate.get())),
        "valid    " + time_text(X509_get0_notBefore(certificate.get())) + " to " +
            time_text(X509_get0_notAfter(certificate.get())),
        "sha256   " + fingerprint(der),
    };
}
