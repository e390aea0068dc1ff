#include "platform/rpc/settings.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <syslog.h>
#include <utility>

#include "platform/operator_log.h"
#include "platform/rpc/setting_file.h"
#include "platform/status.h"

namespace {

constexpr std::uint32_t DEFAULT_PORT = 50551;
constexpr std::uint32_t LARGEST_PORT = 65535;

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

std::uint32_t read_allow_list(const std::string &path, std::shared_ptr<const rpc_allow_list> *list)
{
    std::string why;
    const std::uint32_t status = rpc_allow_file_read(path, list, &why);
    if (status != 0)
        operator_log(LOG_ERR, "ATTEST_ALLOW %s", why.c_str());
    return status;
}

// Who is named by what a certificate says needs certificates.
std::uint32_t read_clients(rpc_settings *settings)
{
    std::uint32_t status = 0;
    if (!settings->tls_directory.empty()) {
        std::string why;
        settings->tls_marks = rpc_tls_marks_of(settings->tls_directory);
        status = rpc_tls_read(settings->tls_directory, &settings->tls, &why);
        if (status != 0)
            operator_log(LOG_ERR, "TLS setting %s", why.c_str());
    }
    if (status != 0 || settings->allow_file.empty())
        return status;
    settings->allow_mark = file_mark_of(settings->allow_file);
    if (settings->tls.on())
        return read_allow_list(settings->allow_file, &settings->allow);
    operator_log(LOG_ERR, "ATTEST_ALLOW names clients by their certificates: set ATTEST_TLS_DIR too");
    return platform_status_from_errno(EINVAL);
}

} // namespace

std::string rpc_endpoint_text(const remote_attestation_api_endpoint &endpoint)
{
    const std::uint32_t a = endpoint.address;
    return std::to_string(a >> 24) + '.' + std::to_string(a >> 16 & 255) + '.' +
           std::to_string(a >> 8 & 255) + '.' + std::to_string(a & 255) + ':' + std::to_string(endpoint.port);
}

std::uint32_t rpc_allow_file_read(const std::string &path, std::shared_ptr<const rpc_allow_list> *list,
                                  std::string *why)
{
    std::string text, reason;
    auto read = std::make_shared<rpc_allow_list>();
    std::uint32_t status = rpc_setting_file_read(path, &text, &reason);
    if (status == 0)
        status = rpc_allow_list_parse(text, read.get(), &reason);
    if (status != 0)
        *why = path + ": " + reason;
    else
        *list = std::move(read);
    return status;
}

std::uint32_t rpc_settings_read(const remote_attestation_api_activation *parameters, rpc_settings *settings)
{
    rpc_settings read{};
    std::uint32_t status = read_endpoint(parameters, &read.endpoint);
    if (status != 0)
        return status;
    read.tls_directory = setting("ATTEST_TLS_DIR");
    read.allow_file = setting("ATTEST_ALLOW");
    status = read_clients(&read);
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
