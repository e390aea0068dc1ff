#include "bmc/rest_transport.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

#include "agent/agent_state.h"
#include "agent/debug_trace.h"
#include "agent/metrics.h"
#include "bmc/rest_reply.h"
#include "platform/auth_services.h"
#include "platform/base64.h"
#include "platform/bmc_address.h"
#include "platform/status.h"

namespace {

constexpr char LOGIN_URL[] = "https://%s:443/login-cert";
constexpr char CALL_URL[] = "https://%s:443/xyz/openbmc_project/attestation/blob/action/get_blob";
constexpr const char *CLIENT_CERTIFICATE = "/usr/share/phosphor-gevent/cert.pem";
constexpr const char *COOKIE_JAR = "cjar";
constexpr const char *LOGIN_USER = "root";
constexpr const char *LOGIN_CERTIFICATE = "Kestrin VOXA";
constexpr const char *REQUEST_HEADER = "Content-Type: application/json";

// The event loop stands still for a transfer. The BMC is on the board's own network: it accepts at once or is
// not there. Gathering an answer may take it a while.
constexpr long CONNECT_LIMIT_MS = 1000;
constexpr long TRANSFER_LIMIT_MS = 15000;

using address_buffer = std::array<char, BMC_ADDRESS_SIZE>;
using url_buffer = std::array<char, 256>;
using error_buffer = std::array<char, CURL_ERROR_SIZE>;
static_assert(CURL_ERROR_SIZE == 256);

struct curl_deleter {
    void operator()(CURL *handle) const noexcept { curl_easy_cleanup(handle); }
    void operator()(curl_slist *list) const noexcept { curl_slist_free_all(list); }
};
using curl_handle = std::unique_ptr<CURL, curl_deleter>;
using header_list = std::unique_ptr<curl_slist, curl_deleter>;

// A transfer that is being prepared. What it points to (a body, a reply) lives longer.
struct transfer {
    header_list headers;
    curl_handle handle;
    CURLcode refused = CURLE_OK; // of the first setting that the library refused
};

template <class Value>
void set(transfer &made, CURLoption option, Value value)
{
    if (made.refused == CURLE_OK)
        made.refused = curl_easy_setopt(made.handle.get(), option, value);
}

// False, traced under the operation's name, when there is no BMC or its address is unknown.
bool find_bmc(const char *operation, address_buffer &address)
{
    std::uint32_t status = platform_get_bmc_address(address.data(), address.size());
    if (status != 0)
        attest_trace_as(operation, "No address of a BMC: %s", status_strerror(status));
    return status == 0;
}

// False, traced under the operation's name, when there is no handle.
bool begin_transfer(const char *operation, transfer &made)
{
    made.handle.reset(curl_easy_init());
    if (made.handle == nullptr)
        attest_trace_as(operation, "curl_easy_init failed");
    return made.handle != nullptr;
}

// The settings that both kinds of transfer have. HTTPS to this address and nowhere else: no redirects, no
// proxy, whatever the environment says.
void apply_common_settings(transfer &made, const url_buffer &url, const char *body)
{
    made.headers.reset(curl_slist_append(nullptr, REQUEST_HEADER));
    if (made.headers == nullptr)
        made.refused = CURLE_OUT_OF_MEMORY;
    set(made, CURLOPT_URL, url.data());
    set(made, CURLOPT_HTTPHEADER, made.headers.get());
    set(made, CURLOPT_VERBOSE, 0L);
    set(made, CURLOPT_SSL_VERIFYPEER, 0L);
    set(made, CURLOPT_SSL_VERIFYHOST, 0L);
    set(made, CURLOPT_POSTFIELDS, body);
    set(made, CURLOPT_CONNECTTIMEOUT_MS, CONNECT_LIMIT_MS);
    set(made, CURLOPT_TIMEOUT_MS, TRANSFER_LIMIT_MS);
    set(made, CURLOPT_PROTOCOLS_STR, "https");
    set(made, CURLOPT_FOLLOWLOCATION, 0L);
    set(made, CURLOPT_PROXY, "");
    set(made, CURLOPT_NOSIGNAL, 1L);
}

void trace_curl_failure(CURLcode code, const char *error_text)
{
    constexpr const char *OPERATION = "perform_rest_call";
    count_bmc_error(static_cast<int>(code));
    attest_trace_as(OPERATION, "\nlibcurl: (%d) ", static_cast<int>(code));
    if (error_text[0] != '\0')
        attest_trace_as(OPERATION, "REST Error Buffer: %s", error_text);
    else
        attest_trace_as(OPERATION, "Curl Error: %s", curl_easy_strerror(code));
}

// Runs the transfer if all its settings were taken.
int run(transfer &made)
{
    if (made.refused == CURLE_OK)
        return perform_rest_call(made.handle.get());
    trace_curl_failure(made.refused, "");
    return -1;
}

// Empties the cookie jar, or makes it, so that only its owner may read it; libcurl keeps a jar's mode when it
// writes it anew. No cookie of an earlier login survives.
bool make_private_jar()
{
    unique_fd jar(open(COOKIE_JAR, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat found {};
    if (!jar || fstat(jar.get(), &found) != 0 || fchmod(jar.get(), 0600) != 0) {
        int error = errno;
        attest_trace_as("login_cert", "Cannot make the cookie jar: %s",
                        status_strerror(platform_status_from_errno(error)));
        return false;
    }
    if (!S_ISREG(found.st_mode))
        attest_trace_as("login_cert", "The cookie jar is no file");
    return S_ISREG(found.st_mode);
}

// The transfer of a login. At its end libcurl writes the cookies, so that is before the result.
int post_login(const url_buffer &url, transfer &made, const char *body)
{
    if (!make_private_jar())
        return -2;
    apply_common_settings(made, url, body);
    set(made, CURLOPT_SSLCERT, CLIENT_CERTIFICATE);
    set(made, CURLOPT_COOKIEJAR, COOKIE_JAR);
    set(made, CURLOPT_WRITEFUNCTION, ignore_output);
    int result = run(made) == 0 ? 0 : -2;
    made.handle.reset();
    return result;
}

// A node's name that needs no escapes in JSON, which the BMC's reader may not know.
bool plain_name(const char *name)
{
    for (; *name != '\0'; ++name) {
        if (static_cast<unsigned char>(*name) < 0x20 || *name == '"' || *name == '\\')
            return false;
    }
    return true;
}

// The payload's bytes, in memory of their own.
int decode_payload(const rest_response &reply, malloc_ptr<std::uint8_t> &response,
                   std::uint32_t *response_len)
{
    constexpr const char *OPERATION = "rest_operation";
    std::int64_t size = at_base64_decode_size_bytes(reply.payload, reply.payload_len);
    if (size <= 0) {
        attest_trace_as(OPERATION, "No valid data received");
        return -1;
    }
    response.reset(static_cast<std::uint8_t *>(std::calloc(1, static_cast<std::size_t>(size))));
    if (response == nullptr) {
        attest_trace_as(OPERATION, "Malloc failure");
        return -1;
    }
    *response_len = static_cast<std::uint32_t>(size);
    int error = at_base64_decode(reply.payload, reply.payload_len, response.get(), response_len);
    if (error == 0)
        return 0;
    attest_trace_as(OPERATION, "Base64 decode failed, err :%d", error);
    response.reset();
    *response_len = 0;
    return -1;
}

// Posts the body and takes the response out of the reply; 0 without a response when the reply has none.
int post_call(const url_buffer &url, const char *body, malloc_ptr<std::uint8_t> &response,
              std::uint32_t *response_len)
{
    rest_response reply = {};
    scope_exit release_body([&reply] { std::free(reply.body); });
    transfer made;
    if (!begin_transfer("rest_operation", made))
        return -1;
    reply.body = static_cast<char *>(std::calloc(1, 1));
    apply_common_settings(made, url, body);
    set(made, CURLOPT_COOKIEFILE, COOKIE_JAR);
    set(made, CURLOPT_WRITEFUNCTION, local_write_cb);
    set(made, CURLOPT_WRITEDATA, &reply);
    if (run(made) != 0)
        return -1;
    return parse_data(&reply) == 0 ? 0 : decode_payload(reply, response, response_len);
}

} // namespace

int perform_rest_call(CURL *handle)
{
    error_buffer error_text{};
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error_text.data());
    // The buffer ends before the handle does.
    scope_exit forget_buffer([handle] { curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr); });
    curl_easy_setopt(handle, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
    CURLcode code = curl_easy_perform(handle);
    if (code != CURLE_OK) {
        trace_curl_failure(code, error_text.data());
        return -1;
    }
    long response_code = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &response_code);
    if (response_code == 200)
        return 0;
    attest_trace("Response code: %lu", static_cast<unsigned long>(response_code));
    return -1;
}

int login_cert()
{
    address_buffer address{};
    transfer made;
    if (!find_bmc(__func__, address) || !begin_transfer(__func__, made))
        return -2;
    std::uint32_t status = auth_services_login_init(
        at_agent_state.client_context, at_agent_state.device_handle, &at_agent_state.login_context);
    if (status != 0) {
        attest_trace("Auth service login init failed :%s", status_strerror(status));
        return -2;
    }
    scope_exit end_session([] {
        if (std::uint32_t failed = auth_services_logout())
            attest_trace_as("login_cert", "Auth service logout failed :%s", status_strerror(failed));
    });
    char *json = nullptr;
    std::uint32_t json_len = 0;
    status = generate_json_from_auth_cert_msg(&json, &json_len, LOGIN_USER, LOGIN_CERTIFICATE);
    malloc_ptr<char> body(json);
    if (status != 0) {
        attest_trace("Failed to generate json auth message :%s", status_strerror(status));
        return -2;
    }
    url_buffer url{};
    std::snprintf(url.data(), url.size(), LOGIN_URL, address.data());
    return post_login(url, made, body.get());
}

malloc_ptr<char> make_call_body(std::uint32_t op, const char *node_name, const char *request_base64,
                                std::size_t base64_len)
{
    // Opening, the number's largest width, two separators, closing, NUL.
    std::size_t size = 10 + 10 + 3 + 3 + 3 + 1 + std::strlen(node_name) + base64_len;
    malloc_ptr<char> body(static_cast<char *>(std::calloc(1, size)));
    if (body != nullptr)
        std::snprintf(body.get(), size, R"(%s%u","%s","%s%s)", R"({"data":[")", op, node_name, request_base64,
                      R"("]})");
    return body;
}

int rest_operation(std::uint32_t op, const char *node_name, const std::uint8_t *request,
                   std::int32_t request_len, std::uint8_t **response, std::uint32_t *response_len)
{
    if (node_name == nullptr || !plain_name(node_name) || request == nullptr || request_len < 0 ||
        response == nullptr || response_len == nullptr) {
        attest_trace("Invalid params");
        return -1;
    }
    *response = nullptr;
    *response_len = 0;
    address_buffer address{};
    if (!find_bmc(__func__, address))
        return -1;
    url_buffer url{};
    std::snprintf(url.data(), url.size(), CALL_URL, address.data());
    std::uint32_t base64_len = 0;
    malloc_ptr<char> base64(at_base64_encode(request, static_cast<std::size_t>(request_len), &base64_len));
    if (base64 == nullptr) {
        attest_trace("base 64 encoding failed");
        return -1;
    }
    malloc_ptr<char> body = make_call_body(op, node_name, base64.get(), base64_len);
    if (body == nullptr) {
        attest_trace("Malloc failure");
        return -1;
    }
    attest_trace("Sending %s", body.get());
    base64.reset();
    malloc_ptr<std::uint8_t> decoded;
    int result = post_call(url, body.get(), decoded, response_len);
    *response = decoded.release();
    return result;
}
