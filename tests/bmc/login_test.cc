// The login at the BMC: its body, from a provisioned software TPM, and where it is refused.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "agent/agent_state.h"
#include "bmc/rest_transport.h"
#include "platform/auth_services.h"
#include "platform/bmc_address.h"
#include "platform/status.h"
#include "tests/support/trace_capture.h"
#include "tests/tpm/software_tpm.h"

// The clock of this program, set forward or back.
static std::time_t clock_offset_s;

extern "C" std::time_t time(std::time_t *result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::time_t told = now.tv_sec + clock_offset_s;
    if (result != nullptr)
        *result = told;
    return told;
}

namespace {

const std::uint32_t NOT_CONNECTED = platform_status_from_errno(ENOTCONN);

// The agent's trust anchor on a software TPM, in a working directory of its own.
struct bmc_login : testing::Test {
    bmc_login()
    {
        clock_offset_s += 1000; // past the life of other tests' bodies
        std::filesystem::current_path(directory.path());
        trace_captured.clear();
        setenv("ATTEST_TPM", tpm.address().c_str(), 1);
        provisioned(tpm.manifest());
        kov_register_ipc_cb(kov_linux_ipc_init, kov_linux_ipc_cleanup, kov_linux_ipc_open,
                            kov_linux_ipc_close, kov_linux_ipc_send, kov_linux_ipc_receive);
        kov_register_mem_cb(kov_linux_mem_alloc, kov_linux_mem_free);
        at_agent_state = {};
        at_agent_state.device_handle = 1;
        kov_login_context &login = at_agent_state.login_context;
        login.kind = KOV_LOGIN_KIND_SECRET;
        std::strcpy(login.user_name, KOV_LOGIN_USER);
        std::strcpy(login.secret, KOV_LOGIN_SECRET);
        EXPECT_EQ(kovc_init_context(&at_agent_state.client_context, KOV_LOGIN_USER, 0), KOV_SUCCESS);
    }
    ~bmc_login() override
    {
        EXPECT_EQ(auth_services_logout(), NOT_CONNECTED); // nobody forgot to
        kovc_release_context(&at_agent_state.client_context);
        std::filesystem::current_path("/");
    }

    static void provisioned(const std::string &manifest)
    {
        setenv("ATTEST_TRUST_ANCHOR", manifest.c_str(), 1);
    }
    static std::uint32_t begin()
    {
        return auth_services_login_init(at_agent_state.client_context, at_agent_state.device_handle,
                                        &at_agent_state.login_context);
    }
    static std::uint32_t body(std::string &text, const char *user, const char *certificate)
    {
        char *json = nullptr;
        std::uint32_t length = 0;
        std::uint32_t status = generate_json_from_auth_cert_msg(&json, &length, user, certificate);
        EXPECT_EQ(json == nullptr, status != 0);
        EXPECT_EQ(length, json == nullptr ? 0 : std::strlen(json));
        text = json == nullptr ? "" : json;
        std::free(json);
        return status;
    }

    temporary_directory directory;
    software_tpm tpm{provisioned_tpm()};
};

// As docs/bmc-relay.md tells a BMC's author to check it.
TEST_F(bmc_login, ABodyChecksWithOpensslsTools)
{
    ASSERT_EQ(begin(), 0u);
    std::string text;
    ASSERT_EQ(body(text, "root", "Kestrin VOXA"), 0u);
    EXPECT_EQ(auth_services_logout(), 0u);
    nlohmann::json fields = nlohmann::json::parse(text);
    EXPECT_EQ(fields.size(), 4u);
    EXPECT_THAT(fields["timestamp"].get<std::string>(), testing::MatchesRegex("20..-..-..T..:..:..Z"));
    write_file("login.json", text);
    program_result checked = run_program(
        "set -e; "
        "jq -rj .certificate login.json | base64 -d > certificate.der; "
        "openssl x509 -inform der -in certificate.der -pubkey -noout > key.pem; "
        "jq -rj .signature login.json | base64 -d > signature.bin; "
        "jq -rj '.user, \"\\n\", .timestamp' login.json | openssl dgst -sha256 -verify key.pem -signature "
        "signature.bin");
    EXPECT_EQ(checked.output, "Verified OK\n");
    EXPECT_EQ(fields["user"], "root");

    std::uint8_t *object = nullptr;
    std::uint32_t length = 0;
    kovc_session *session = nullptr;
    ASSERT_EQ(kovc_app_login(at_agent_state.client_context, 1, &at_agent_state.login_context, &session),
              KOV_SUCCESS);
    EXPECT_EQ(kovc_so_read(session, 0, "RSA_VOXACRT", &object, &length), KOV_SUCCESS);
    EXPECT_EQ(file_bytes("certificate.der"), std::vector<std::uint8_t>(object, object + length));
    std::free(object);
    kovc_app_logout(&session);
}

TEST_F(bmc_login, ABodyNeedsASessionItsCertificateAndItsKey)
{
    std::string text;
    EXPECT_EQ(body(text, "root", "Kestrin VOXA"), NOT_CONNECTED);
    EXPECT_EQ(auth_services_login_init(nullptr, 1, &at_agent_state.login_context),
              platform_status_from_errno(ENODEV));
    ASSERT_EQ(begin(), 0u);
    EXPECT_EQ(begin(), platform_status_from_errno(EBUSY));
    EXPECT_EQ(body(text, "root", "Kestrin AIK"), platform_status_from_errno(ENOENT));
    EXPECT_EQ(body(text, "ro\xFFot", "Kestrin VOXA"), platform_status_from_errno(EINVAL));
    EXPECT_EQ(auth_services_logout(), 0u);
    provisioned("/nowhere/trust_anchor.json");
    ASSERT_EQ(begin(), 0u);
    EXPECT_EQ(body(text, "root", "Kestrin VOXA"), platform_status_from_errno(ENOKEY));
    tpm.kill();
    provisioned(tpm.manifest());
    EXPECT_EQ(auth_services_logout(), 0u);
    EXPECT_NE(begin(), 0u);
}

// A body serves for less than 30 s, this user and this certificate, whatever becomes of the clock.
TEST_F(bmc_login, ABodyServesAWhile)
{
    std::string first;
    std::string later;
    ASSERT_EQ(begin(), 0u);
    ASSERT_EQ(body(first, "root", "Kestrin VOXA"), 0u);
    clock_offset_s += 20;
    ASSERT_EQ(body(later, "root", "Kestrin VOXA"), 0u);
    EXPECT_EQ(later, first);
    ASSERT_EQ(body(later, "other", "Kestrin VOXA"), 0u);
    EXPECT_THAT(later, testing::HasSubstr(R"("user":"other")"));
    for (std::time_t step : {30, -1000, 1000}) {
        first = later;
        clock_offset_s += step;
        ASSERT_EQ(body(later, "other", "Kestrin VOXA"), 0u);
        EXPECT_NE(later, first) << step;
    }
    EXPECT_EQ(auth_services_logout(), 0u);

    kovc_release_context(&at_agent_state.client_context); // for another client
    program_result again = run_program("timeout 60 " + std::string(ATTEST_PROVISION) + " --force --tpm " +
                                       tpm.address() + " --dir " + tpm.node() + " --node-name card7");
    ASSERT_EQ(again.status, 0) << again.output;
    ASSERT_EQ(kovc_init_context(&at_agent_state.client_context, KOV_LOGIN_USER, 0), KOV_SUCCESS);
    ASSERT_EQ(begin(), 0u);
    ASSERT_EQ(body(first, "other", "Kestrin VOXA"), 0u);
    EXPECT_NE(nlohmann::json::parse(first)["certificate"], nlohmann::json::parse(later)["certificate"]);
    EXPECT_EQ(auth_services_logout(), 0u);
}

// Nobody serves HTTPS at the last address of the loopback network.
TEST_F(bmc_login, LeavesAnEmptyPrivateJarWhenNobodyAnswers)
{
    setenv("ATTEST_BMC_ADDRESS", "127.255.255.254", 1);
    write_file("cjar", "the cookie of an earlier login");
    chmod("cjar", 0644);
    EXPECT_EQ(login_cert(), -2);
    EXPECT_TRUE(trace_has("perform_rest_call(): \nlibcurl: (7) "));
    EXPECT_TRUE(trace_has_part("perform_rest_call(): REST Error Buffer: "));
    struct stat jar {};
    ASSERT_EQ(stat("cjar", &jar), 0);
    EXPECT_EQ(jar.st_mode & 0777, 0600u);
    EXPECT_THAT(file_text("cjar"), testing::Not(testing::HasSubstr("earlier")));

    std::filesystem::remove("cjar");
    ASSERT_EQ(symlink("login.json", "cjar"), 0);
    trace_captured.clear();
    EXPECT_EQ(login_cert(), -2);
    EXPECT_THAT(trace_captured, testing::ElementsAre(testing::HasSubstr("Cannot make the cookie jar")));
    EXPECT_FALSE(std::filesystem::exists("login.json"));
}

TEST_F(bmc_login, TracesWhichStepFailed)
{
    setenv("ATTEST_BMC_ADDRESS", "127.255.255.254", 1);
    provisioned("/nowhere/trust_anchor.json");
    EXPECT_EQ(login_cert(), -2);
    tpm.kill();
    EXPECT_EQ(login_cert(), -2);
    setenv("ATTEST_BMC_ADDRESS", "none", 1); // for which the TPM is not asked
    EXPECT_EQ(login_cert(), -2);
    EXPECT_THAT(
        trace_captured,
        testing::ElementsAre("login_cert(): Failed to generate json auth message :Required key not available",
                             testing::StartsWith("login_cert(): Auth service login init failed :"),
                             "login_cert(): No address of a BMC: No such device"));
    EXPECT_FALSE(std::filesystem::exists("cjar"));
}

TEST(bmc_address, IsTheSettingOrTheBoardsOwn)
{
    const struct {
        const char *setting;
        std::uint32_t status;
        const char *address;
    } cases[] = {
        {nullptr, 0, "169.254.0.17"},
        {"10.0.0.9", 0, "10.0.0.9"},
        {"none", platform_status_from_errno(ENODEV), ""},
        {"", platform_status_from_errno(EINVAL), ""},
        {"bmc.example", platform_status_from_errno(EINVAL), ""},
        {"10.0.0.9:80/x", platform_status_from_errno(EINVAL), ""},
    };
    for (const auto &[setting, status, address] : cases) {
        unsetenv("ATTEST_BMC_ADDRESS");
        if (setting != nullptr)
            setenv("ATTEST_BMC_ADDRESS", setting, 1);
        char text[BMC_ADDRESS_SIZE] = "?";
        EXPECT_EQ(platform_get_bmc_address(text, sizeof text), status);
        EXPECT_STREQ(text, address);
    }
    char small[BMC_ADDRESS_SIZE - 1];
    EXPECT_NE(platform_get_bmc_address(small, sizeof small), 0u);
}

} // namespace
