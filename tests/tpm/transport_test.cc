// A TPM that dies, hangs, is reset or answers nonsense: always a status, and the next login is served.
#include <gmock/gmock.h>

#include <pty.h>
#include <random>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>

#include "platform/tpm/linux_ipc.h"
#include "tests/tpm/client_fixture.h"
#include "tests/tpm/fake_tpm.h"

namespace {

using namespace std::chrono_literals;

class transport_test : public provisioned_fixture {
protected:
    ~transport_test() override { linux_ipc_set_command_bound(IPC_COMMAND_BOUND); }

    // Evidence as a request asks for it. Whether all of it came.
    bool request()
    {
        const session_owner session = login();
        return session.login_status == KOV_SUCCESS && session.pcr(2, 0).status == KOV_SUCCESS &&
               session.quote("RSA_AIK_KEY", 2, 1, {1}).quote.status == KOV_SUCCESS &&
               session.sign("RSA_VOXAKEY", {1}).status == KOV_SUCCESS &&
               session.uids(KOV_UID_REFERENCE, 2).digests.status == KOV_SUCCESS;
    }
};

TEST_F(transport_test, ATpmThatIsGoneBetweenTwoCommandsIsAStatusAndComesBack)
{
    session_owner session = login();
    ASSERT_EQ(session.pcr(2, 0).status, KOV_SUCCESS);
    tpm_.kill();
    EXPECT_EQ(session.pcr(2, 0).status, KOV_ERR_CLOSED);
    EXPECT_EQ(session.quote("RSA_AIK_KEY", 2, 1, {}).quote.status, KOV_ERR_CLOSED);
    EXPECT_EQ(session.logout(), KOV_ERR_CLOSED);
    EXPECT_EQ(login().login_status, KOV_ERR_ERRNO | ECONNREFUSED);
    tpm_.start();
    EXPECT_TRUE(request());
    tpm_.kill();
    tpm_.start();
    EXPECT_TRUE(request()) << "restarted between two sessions: the first login finds out and connects anew";
}

TEST_F(transport_test, ASessionThatOutlivesItsConnectionIsSafe)
{
    session_owner old = login();
    kovc_signing *signing = nullptr;
    ASSERT_EQ(kovc_sign_init(old.get(), KOV_LOGIN_USER, "RSA_VOXAKEY", 2, &signing), KOV_SUCCESS);
    tpm_.kill();
    EXPECT_NE(login().login_status, KOV_SUCCESS);
    EXPECT_EQ(old.pcr(2, 0).status, KOV_ERR_CLOSED);
    EXPECT_EQ(old.sign("RSA_VOXAKEY", {1}).status, KOV_ERR_CLOSED);
    EXPECT_EQ(old.quote("RSA_AIK_KEY", 2, 1, {}).quote.status, KOV_ERR_CLOSED);
    kov_capability *capability = nullptr;
    EXPECT_EQ(kovc_device_capability(old.get(), 0xC00, &capability), KOV_ERR_CLOSED);
    tpm_.start();
    EXPECT_TRUE(request());
    std::uint8_t *signature = nullptr;
    std::uint32_t length = 0;
    EXPECT_EQ(kovc_sign_final(old.get(), signing, &signature, &length), KOV_SUCCESS);
    const malloc_ptr<std::uint8_t> owned(signature);
}

TEST_F(transport_test, ATpmThatHangsIsGivenUp)
{
    const session_owner session = login();
    ASSERT_EQ(session.login_status, KOV_SUCCESS);
    tpm_.pause();
    linux_ipc_set_command_bound(200ms);
    EXPECT_EQ(session.pcr(2, 0).status, KOV_ERR_TIMEOUT);
    EXPECT_EQ(login().login_status, KOV_ERR_TIMEOUT);
    tpm_.resume();
    linux_ipc_set_command_bound(IPC_COMMAND_BOUND);
    EXPECT_TRUE(request());
}

TEST_F(transport_test, ATpmThatWasResetIsStartedAndItsListBoundAgain)
{
    ASSERT_TRUE(request());
    const std::vector<std::uint8_t> bound = login().pcr(2, 15).bytes();
    tpm_.reset();
    EXPECT_TRUE(request());
    EXPECT_EQ(login().pcr(2, 15).bytes(), bound);
    tpm_.kill();
    tpm_.start(tpm_start::not_started);
    EXPECT_TRUE(request()) << "firmware without TPM support leaves it waiting";
}

TEST_F(transport_test, ADeviceIsReachedThroughItsThread)
{
    int tpm_end = -1;
    int device_end = -1;
    char device[64];
    termios raw{};
    cfmakeraw(&raw);
    ASSERT_EQ(openpty(&tpm_end, &device_end, device, &raw, nullptr), 0);
    const unique_fd tpm_side(tpm_end);
    const unique_fd held_open(device_end);
    release();
    tpm_.kill();
    const std::string state = "dir=" + tpm_.directory() + "/tpm";
    const pid_t tpm = fork();
    if (tpm < 0)
        std::abort(); // -1 is not to be killed: it stands for every process
    if (tpm == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execlp("swtpm", "swtpm", "chardev", "--tpm2", "--tpmstate", state.c_str(), "--fd",
               std::to_string(tpm_end).c_str(), "--flags", "not-need-init,startup-clear", nullptr);
        _exit(127);
    }
    use(std::string("device:") + device, tpm_.manifest());
    EXPECT_TRUE(request());
    linux_ipc_set_command_bound(200ms);
    kill(tpm, SIGSTOP);
    for (int i = 0; i < 2 * IPC_MAX_STUCK_RELAYS; ++i)
        EXPECT_EQ(login().login_status, KOV_ERR_TIMEOUT) << "also when no further thread is to be stuck";
    kill(tpm, SIGKILL);
    waitpid(tpm, nullptr, 0);
}

TEST_F(transport_test, WhatIsNoTpmIsNotOpened)
{
    write_file(tpm_.directory() + "/file", "precious");
    const std::pair<std::string, kov_status> cases[] = {
        {"device:" + tpm_.directory() + "/file", KOV_ERR_ERRNO | ENODEV},
        {"device:/dev/no-such-tpm", KOV_ERR_ERRNO | ENOENT},
        {"swtpm:path=" + tpm_.directory() + "/none", KOV_ERR_ERRNO | ENOENT},
        {"swtpm:path=/" + std::string(200, 'x'), KOV_ERR_SETTING},
        {"swtpm:path=", KOV_ERR_SETTING},
        {"swtpm:" + tpm_.directory() + "/socket", KOV_ERR_SETTING},
        {"", KOV_ERR_SETTING}};
    for (const auto &[setting, expected] : cases) {
        setenv("ATTEST_TPM", setting.c_str(), 1);
        EXPECT_EQ(login().login_status, expected) << setting;
        std::uint64_t device = 7;
        std::uint64_t info = 7;
        EXPECT_EQ(platform_get_kov_device_info(&device, &info) == 0,
                  setting.size() > sizeof "swtpm:path=" && setting.find("swtpm:/") == std::string::npos);
    }
    EXPECT_EQ(file_text(tpm_.directory() + "/file"), "precious");
}

struct nonsense {
    const char *what;
    kov_status expected;
    fake_answer answer;
};

std::vector<std::uint8_t> changed(std::vector<std::uint8_t> response, std::size_t at, std::uint8_t value)
{
    response[at] = value;
    return response;
}

std::vector<std::uint8_t> cut(std::vector<std::uint8_t> response, std::size_t length)
{
    response.resize(length);
    return response;
}

TEST_F(transport_test, NonsenseIsAStatus)
{
    const std::vector<std::uint8_t> clock = clock_response();
    const nonsense cases[] = {
        {"text", KOV_ERR_BAD_RESPONSE, {{'4', '0', '0', ' ', 'B', 'a', 'd', ' ', 'R', 'e', 'q', '!'}}},
        {"no bytes", KOV_ERR_CLOSED, {{}, true}},
        {"a header cut short", KOV_ERR_CLOSED, {cut(clock, 9), true}},
        {"parameters cut short", KOV_ERR_CLOSED, {cut(clock, 20), true}},
        {"silence", KOV_ERR_TIMEOUT, {{}}},
        {"silence in the middle", KOV_ERR_TIMEOUT, {cut(clock, 20)}},
        {"a byte now and then", KOV_ERR_TIMEOUT, {clock, false, 20ms}},
        {"a size below the header's", KOV_ERR_BAD_RESPONSE, {changed(clock, 5, 9)}},
        {"a size below what came", KOV_ERR_BAD_RESPONSE, {changed(clock, 5, 34)}},
        {"a size of 4097", KOV_ERR_BAD_RESPONSE, {changed(changed(clock, 4, 0x10), 5, 1)}},
        {"a size of 2 GiB", KOV_ERR_BAD_RESPONSE, {changed(clock, 2, 0x80)}},
        {"a tag of no response", KOV_ERR_BAD_RESPONSE, {changed(clock, 1, 0x03)}},
        {"a code that would be success", KOV_ERR_BAD_RESPONSE, {tpm_response(1)}},
        {"a code that would be tried again for ever", KOV_ERR_BAD_RESPONSE, {tpm_response(0x00000009)}},
        {"the same of a resource manager", KOV_ERR_BAD_RESPONSE, {tpm_response(0x000B0009)}},
        {"a code of the library's own", KOV_ERR_BAD_RESPONSE, {tpm_response(KOV_ERR_NO_KEY)}},
        {"no parameters", KOV_ERR_BAD_RESPONSE, {tpm_response(0)}},
        {"a TPM in failure mode", TPM2_RC_FAILURE, {tpm_response(TPM2_RC_FAILURE)}},
        {"a TPM that always wants a retry", TPM2_RC_RETRY, {tpm_response(TPM2_RC_RETRY)}},
    };
    for (const nonsense &one : cases) {
        linux_ipc_set_command_bound(one.expected == KOV_ERR_TIMEOUT ? 150ms : IPC_COMMAND_BOUND);
        const std::string path = tpm_.directory() + "/fake";
        const fake_tpm fake(path, [&](int, auto) { return one.answer; });
        use("swtpm:path=" + path, tpm_.manifest());
        EXPECT_EQ(login().login_status, one.expected) << one.what;
        release();
    }
}

// Every response of a request changed in many ways: nothing but statuses may come of it.
TEST_F(transport_test, AResponseWithAnyByteWrongIsHarmless)
{
    std::mt19937 random(20240607);
    ASSERT_TRUE(request());
    traffic.commands.clear();
    release();
    use(tpm_);
    ASSERT_TRUE(request());
    const std::size_t responses = traffic.commands.size();
    ASSERT_GT(responses, 6u);
    for (std::size_t target = 0; target < responses; ++target) {
        for (int variant = 0; variant < 24; ++variant) {
            std::size_t number = 0;
            traffic.on_response = [&](std::uint8_t *response, std::uint32_t capacity, std::uint32_t &length) {
                if (number++ != target)
                    return;
                if (variant % 4 == 0) { // shorter or longer, and says so
                    length = variant % 8 == 0 ? 10 + static_cast<std::uint32_t>(random() % (length - 9))
                                              : capacity;
                    response[4] = static_cast<std::uint8_t>(length >> 8);
                    response[5] = static_cast<std::uint8_t>(length);
                } else if (variant % 4 == 1) { // a size or count field out of all bounds
                    std::fill_n(response + 10 + random() % 12, 4, std::uint8_t{0xFF});
                } else {
                    response[random() % length] ^= static_cast<std::uint8_t>(1 + random() % 255);
                }
            };
            release();
            use(tpm_);
            request();
        }
        traffic.on_response = nullptr;
        EXPECT_TRUE(request()) << "after response " << target;
    }
}

} // namespace
