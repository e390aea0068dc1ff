#include "platform/rpc/settings.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <syslog.h>

#include "platform/operator_log.h"
#include "platform/owners.h"
#include "platform/status.h"

namespace {

constexpr std::uint32_t DEFAULT_PORT = 50551;
constexpr std::uint32_t LARGEST_PORT = 65535;
// A bundle of a few hundred CAs; what is larger is not what was meant.
constexpr std::size_t LARGEST_PEM_FILE = std::size_t{1} << 20;

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

const char *setting(const char *name)
{
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool port_from_environment(std::uint32_t *port)
{
    const char *text = std::getenv("ATTEST_PORT");
    if (text == nullptr) {
        *port = DEFAULT_PORT;
        return true;
    }
    const char *end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, *port);
    if (error == std::errc{} && stop == end && *port >= 1 && *port <= LARGEST_PORT)
        return true;
    operator_log(LOG_ERR, "ATTEST_PORT is \"%s\"; a port is a number from 1 to 65535", text);
    return false;
}

std::uint32_t read_endpoint(const remote_attestation_api_activation *parameters,
                            remote_attestation_api_endpoint *endpoint)
{
    if (parameters == nullptr ||
        (parameters->present & remote_attestation_api_activation::has_address) == 0) {
        operator_log(LOG_ERR, "the remote attestation API cannot be served: no address was given");
        return platform_status_from_errno(EINVAL);
    }
    *endpoint = parameters->endpoint;
    if ((parameters->present & remote_attestation_api_activation::has_port) == 0)
        return port_from_environment(&endpoint->port) ? 0 : platform_status_from_errno(EINVAL);
    if (endpoint->port <= LARGEST_PORT)
        return 0;
    operator_log(LOG_ERR, "the remote attestation API cannot be served on port %u", endpoint->port);
    return platform_status_from_errno(EINVAL);
}

std::uint32_t refuse_file(const std::string &path, int error, const char *why)
{
    operator_log(LOG_ERR, "TLS setting %s: %s", path.c_str(), why);
    return platform_status_from_errno(error);
}

// Opened without waiting, so that a FIFO in the file's place cannot hang the start.
std::uint32_t read_pem_file(const std::string &path, std::string *content)
{
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat about {};
    if (!fd || fstat(fd.get(), &about) != 0)
        return refuse_file(path, errno, std::strerror(errno));
    if (!S_ISREG(about.st_mode))
        return refuse_file(path, EINVAL, "not a regular file");
    std::string bytes(LARGEST_PEM_FILE + 1, '\0');
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t got = read(fd.get(), bytes.data() + length, bytes.size() - length);
        if (got < 0)
            return refuse_file(path, errno, std::strerror(errno));
        if (got == 0)
            break;
        length += static_cast<std::size_t>(got);
    }
    if (length == 0)
        return refuse_file(path, EBADMSG, "the file is empty");
    if (length > LARGEST_PEM_FILE)
        return refuse_file(path, EFBIG, "larger than 1 MiB");
    bytes.resize(length);
    *content = std::move(bytes);
    return 0;
}

bio_ptr reader_of(const std::string &pem)
{
    return bio_ptr(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

x509_ptr first_certificate(const std::string &pem)
{
    return x509_ptr(PEM_read_bio_X509(reader_of(pem).get(), nullptr, nullptr, nullptr));
}

// A daemon has nobody to ask for a pass phrase: an encrypted key cannot be read.
int no_pass_phrase(char *, int, int, void *)
{
    return -1;
}

void warn_of_dates(const std::string &path, const X509 *certificate)
{
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0)
        operator_log(LOG_WARNING, "TLS setting %s: the certificate is not valid yet", path.c_str());
    if (X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0)
        operator_log(LOG_WARNING, "TLS setting %s: the certificate has expired", path.c_str());
}

// What gRPC would only find out at the first client is found out here.
std::uint32_t read_tls(const std::string &directory, rpc_tls *tls)
{
    const std::string certificate_path = directory + "/server.crt";
    const std::string key_path = directory + "/server.key";
    const std::string ca_path = directory + "/client-ca.crt";
    const scope_exit forget_errors([] { ERR_clear_error(); });
    rpc_tls read;
    std::uint32_t status = read_pem_file(certificate_path, &read.certificate);
    if (status == 0)
        status = read_pem_file(key_path, &read.key);
    if (status == 0)
        status = read_pem_file(ca_path, &read.client_ca);
    if (status != 0)
        return status;

    const x509_ptr certificate = first_certificate(read.certificate);
    if (certificate == nullptr)
        return refuse_file(certificate_path, EBADMSG, "no PEM certificate in it");
    const key_ptr key(PEM_read_bio_PrivateKey(reader_of(read.key).get(), nullptr, no_pass_phrase, nullptr));
    if (key == nullptr)
        return refuse_file(key_path, EBADMSG, "no PEM private key in it that is not encrypted");
    if (X509_check_private_key(certificate.get(), key.get()) != 1)
        return refuse_file(key_path, EKEYREJECTED, "not the key of the certificate in server.crt");
    if (first_certificate(read.client_ca) == nullptr)
        return refuse_file(ca_path, EBADMSG, "no PEM certificate in it");
    warn_of_dates(certificate_path, certificate.get());
    *tls = std::move(read);
    return 0;
}

} // namespace

std::string rpc_endpoint_text(const remote_attestation_api_endpoint &endpoint)
{
    const std::uint32_t a = endpoint.address;
    return std::to_string(a >> 24) + '.' + std::to_string(a >> 16 & 255) + '.' +
           std::to_string(a >> 8 & 255) + '.' + std::to_string(a & 255) + ':' + std::to_string(endpoint.port);
}

std::uint32_t rpc_settings_read(const remote_attestation_api_activation *parameters, rpc_settings *settings)
{
    rpc_settings read{};
    std::uint32_t status = read_endpoint(parameters, &read.endpoint);
    if (status != 0)
        return status;
    const std::string directory = setting("ATTEST_TLS_DIR");
    if (!directory.empty())
        status = read_tls(directory, &read.tls);
    if (status != 0)
        return status;
    const bool loopback = read.endpoint.address >> 24 == 127;
    if (!read.tls.on() && !loopback && std::strcmp(setting("ATTEST_RPC_PLAINTEXT"), "1") != 0) {
        operator_log(LOG_ERR,
                     "the remote attestation API is not served on %s without TLS: set ATTEST_TLS_DIR, or "
                     "ATTEST_RPC_PLAINTEXT=1 to allow it",
                     rpc_endpoint_text(read.endpoint).c_str());
        return platform_status_from_errno(EACCES);
    }
    *settings = std::move(read);
    return 0;
}
