// A relayed operation beside the two transfers that it needs, by nothing but libcurl: the same bytes and
// settings, against the same simulated BMC. What is between them is the login's signature by the TPM, the
// work of the message library and the relay's own. And what a node without a BMC pays for asking.
//
// Run by itself the program starts a node with a BMC, without an agent, and runs again inside it.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include <curl/curl.h>

#include "agent/agent_state.h"
#include "agent/status.h"
#include "bench/ratio.h"
#include "bmc/bmc_operations.h"
#include "bmc/rest_transport.h"
#include "platform/auth_services.h"
#include "platform/base64.h"
#include "platform/messages.h"
#include "platform/owners.h"
#include "trust_anchor/local_init.h"

namespace {

namespace fs = std::filesystem;

constexpr double RELAY_GOAL = 1.2;
constexpr ratio_rounds ROUNDS = {41, 0.05};
constexpr char LOGIN_URL[] = "https://169.254.0.17:443/login-cert";
constexpr char CALL_URL[] = "https://169.254.0.17:443/xyz/openbmc_project/attestation/blob/action/get_blob";

std::uint8_t nonce[32] = {1};
std::uint32_t indices[24] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                             12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23};

attest_pcr_request pcr_request()
{
    attest_pcr_request request{};
    request.present = request.has_pcr_indices | request.has_nonce;
    request.pcr_indices = {indices, std::size(indices)};
    request.nonce = {nonce, sizeof nonce};
    return request;
}

void relay_pcrs(benchmark::State &state)
{
    const attest_pcr_request request = pcr_request();
    while (state.KeepRunning()) {
        owned_message<NodePCRData> record;
        if (attestation_attest_pcrs_bmc(&request, record.get()) != ATTEST_OK)
            state.SkipWithError("no record from the BMC");
    }
}

void relay_boot_log(benchmark::State &state)
{
    const get_platform_boot_integrity_event_logs_request request{};
    while (state.KeepRunning()) {
        owned_message<NodeBootIntegrityLog> record;
        if (attestation_get_bmc_sb_event_logs(&request, record.get()) != ATTEST_OK)
            state.SkipWithError("no record from the BMC");
    }
}

// A login body that is not too old for the BMC.
std::string fresh_login()
{
    if (auth_services_login_init(at_agent_state.client_context, at_agent_state.device_handle,
                                 &at_agent_state.login_context) != 0)
        return {};
    char *json = nullptr;
    std::uint32_t length = 0;
    generate_json_from_auth_cert_msg(&json, &length, "root", "Kestrin VOXA");
    const malloc_ptr<char> owned(json);
    auth_services_logout();
    return {json, length};
}

template <class Request>
std::string call_body(std::uint32_t operation, const Request &request)
{
    std::vector<std::byte> encoded(static_cast<std::size_t>(message_encoded_size(request)));
    message_encode(request, encoded);
    std::uint32_t length = 0;
    const malloc_ptr<char> text(at_base64_encode(encoded.data(), encoded.size(), &length));
    const malloc_ptr<char> body = make_call_body(operation, "node", text.get(), length);
    return body.get();
}

std::size_t drop(const char *, std::size_t size, std::size_t count, void *)
{
    return size * count;
}

std::size_t keep(const char *bytes, std::size_t size, std::size_t count, void *into)
{
    static_cast<std::string *>(into)->append(bytes, size * count);
    return size * count;
}

bool post(const char *url, const std::string &body, bool is_login, std::string &reply)
{
    CURL *handle = curl_easy_init();
    curl_slist *headers = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(handle, CURLOPT_URL, url);
    curl_easy_setopt(handle, CURLOPT_IPRESOLVE, CURL_IPRESOLVE_V4);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, 1000L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, 15000L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    if (is_login)
        curl_easy_setopt(handle, CURLOPT_SSLCERT, "/usr/share/phosphor-gevent/cert.pem");
    curl_easy_setopt(handle, is_login ? CURLOPT_COOKIEJAR : CURLOPT_COOKIEFILE, "bare_cjar");
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, is_login ? drop : keep);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply);
    long status = 0;
    if (curl_easy_perform(handle) == CURLE_OK)
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(handle);
    return status == 200;
}

void post_both(benchmark::State &state, const std::string &call)
{
    const std::string login = fresh_login();
    while (state.KeepRunning()) {
        std::string reply;
        if (!post(LOGIN_URL, login, true, reply) || !post(CALL_URL, call, false, reply) ||
            reply.find("\"status\": \"ok\"") == std::string::npos)
            state.SkipWithError("no reply from the BMC");
    }
}

void bare_pcrs(benchmark::State &state)
{
    post_both(state, call_body(2, pcr_request()));
}

void bare_boot_log(benchmark::State &state)
{
    post_both(state, call_body(1, get_platform_boot_integrity_event_logs_request{}));
}

void ask_without_bmc(benchmark::State &state)
{
    setenv("ATTEST_BMC_ADDRESS", "none", 1);
    const attest_pcr_request request = pcr_request();
    while (state.KeepRunning()) {
        NodePCRData record{};
        if (attestation_attest_pcrs_bmc(&request, &record) != ATTEST_ERR_NO_DATA)
            state.SkipWithError("a record without a BMC");
    }
    unsetenv("ATTEST_BMC_ADDRESS");
}

void millisecond(benchmark::State &state)
{
    while (state.KeepRunning()) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
        while (std::chrono::steady_clock::now() < end) {
        }
    }
}

RATIO_BENCHMARK("relayed PCRs, beside two bare transfers", RELAY_GOAL, relay_pcrs, bare_pcrs, ROUNDS);
RATIO_BENCHMARK("relayed boot log, beside two bare transfers", RELAY_GOAL, relay_boot_log, bare_boot_log,
                ROUNDS);
RATIO_BENCHMARK("a node without a BMC, beside a millisecond", 1.0, ask_without_bmc, millisecond);

// Does not return but to say that there is no node to run in.
int run_in_node(int argc, char **argv)
{
    const std::string self = fs::read_symlink("/proc/self/exe");
    const std::string log = ATTEST_BOOT_LOG;
    std::vector<const char *> command = {ATTEST_NODE,  "--build",   ATTEST_BUILD, "--bmc",     "--no-agent",
                                         "--boot-log", log.c_str(), "--",         self.c_str()};
    command.insert(command.end(), argv + 1, argv + argc);
    command.push_back(nullptr);
    execv(command[0], const_cast<char *const *>(command.data()));
    std::perror(command[0]);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    const char *state = std::getenv("NODE_STATE");
    const char *tpm = std::getenv("NODE_TPM");
    if (state == nullptr || tpm == nullptr)
        return run_in_node(argc, argv);
    setenv("ATTEST_TPM", tpm, 1);
    if (chdir((std::string(state) + "/work").c_str()) != 0 || attestation_local_init() != ATTEST_OK ||
        fresh_login().empty()) {
        std::fprintf(stderr, "the node does not log in\n");
        return 1;
    }
    const int status = ratio_main(argc, argv);
    kovc_release_context(&at_agent_state.client_context);
    return status;
}
