#include "platform/rpc/tls.h"

#include <cerrno>
#include <ctime>
#include <memory>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <syslog.h>
#include <utility>

#include "platform/operator_log.h"
#include "platform/owners.h"
#include "platform/rpc/setting_file.h"
#include "platform/status.h"

namespace {

constexpr const char *CERTIFICATE = "/server.crt";
constexpr const char *KEY = "/server.key";
constexpr const char *CLIENT_CA = "/client-ca.crt";

template <auto release>
struct openssl_deleter {
    template <class T>
    void operator()(T *object) const noexcept
    {
        release(object);
    }
};
using bio_ptr = std::unique_ptr<BIO, openssl_deleter<BIO_free_all>>;
using x509_ptr = std::unique_ptr<X509, openssl_deleter<X509_free>>;
using key_ptr = std::unique_ptr<EVP_PKEY, openssl_deleter<EVP_PKEY_free>>;

std::uint32_t refuse(const std::string &path, int error, const char *reason, std::string *why)
{
    *why = path + ": " + reason;
    return platform_status_from_errno(error);
}

std::uint32_t read_file(const std::string &path, std::string *content, std::string *why)
{
    std::string reason;
    const std::uint32_t status = rpc_setting_file_read(path, content, &reason);
    if (status != 0)
        *why = path + ": " + reason;
    return status;
}

bio_ptr reader_of(const std::string &pem)
{
    return bio_ptr(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

// The first certificate of a file all of whose certificates can be read, or null: a file that is still being
// written must not pass as one with fewer.
x509_ptr first_of_whole_file(const std::string &pem)
{
    const bio_ptr reader = reader_of(pem);
    x509_ptr first, next;
    ERR_clear_error();
    while (next.reset(PEM_read_bio_X509(reader.get(), nullptr, nullptr, nullptr)), next != nullptr) {
        if (first == nullptr)
            first = std::move(next);
    }
    const bool at_end = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    return at_end ? std::move(first) : nullptr;
}

// A daemon has nobody to ask for a pass phrase: an encrypted key cannot be read.
int no_pass_phrase(char *, int, int, void *)
{
    return -1;
}

std::int64_t seconds_since_1970(const ASN1_TIME *time)
{
    std::tm parts{};
    return ASN1_TIME_to_tm(time, &parts) == 1 ? static_cast<std::int64_t>(timegm(&parts)) : 0;
}

void warn_of_dates(const std::string &path, const X509 *certificate)
{
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0)
        operator_log(LOG_WARNING, "TLS setting %s: the certificate is not valid yet", path.c_str());
    if (X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0)
        operator_log(LOG_WARNING, "TLS setting %s: the certificate has expired", path.c_str());
}

} // namespace

std::uint32_t rpc_tls_read(const std::string &directory, rpc_tls *tls, std::string *why)
{
    const std::string certificate_path = directory + CERTIFICATE;
    const std::string key_path = directory + KEY;
    const std::string ca_path = directory + CLIENT_CA;
    const scope_exit forget_errors([] { ERR_clear_error(); });
    rpc_tls read;
    std::uint32_t status = read_file(certificate_path, &read.certificate, why);
    if (status == 0)
        status = read_file(key_path, &read.key, why);
    if (status == 0)
        status = read_file(ca_path, &read.client_ca, why);
    if (status != 0)
        return status;

    const x509_ptr certificate = first_of_whole_file(read.certificate);
    if (certificate == nullptr)
        return refuse(certificate_path, EBADMSG, "no PEM certificate in it, or one that is cut", why);
    const key_ptr key(PEM_read_bio_PrivateKey(reader_of(read.key).get(), nullptr, no_pass_phrase, nullptr));
    if (key == nullptr)
        return refuse(key_path, EBADMSG, "no PEM private key in it that is not encrypted", why);
    if (X509_check_private_key(certificate.get(), key.get()) != 1)
        return refuse(key_path, EKEYREJECTED, "not the key of the certificate in server.crt", why);
    if (first_of_whole_file(read.client_ca) == nullptr)
        return refuse(ca_path, EBADMSG, "no PEM certificate in it, or one that is cut", why);
    warn_of_dates(certificate_path, certificate.get());
    read.expires = seconds_since_1970(X509_get0_notAfter(certificate.get()));
    *tls = std::move(read);
    return 0;
}

rpc_tls_marks rpc_tls_marks_of(const std::string &directory)
{
    return {file_mark_of(directory + CERTIFICATE), file_mark_of(directory + KEY),
            file_mark_of(directory + CLIENT_CA)};
}
