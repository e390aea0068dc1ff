#include <cerrno>
#include <cstdlib>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/node_identity.h"
#include "platform/owners.h"
#include "platform/process_manager.h"
#include "platform/status.h"

namespace {

constexpr std::uint32_t INVALID = platform_status_from_errno(EINVAL);

class node_identity_test : public testing::Test {
protected:
    void TearDown() override
    {
        for (const char *name :
             {"ATTEST_NODE_NAME", "ATTEST_NODE_ID", "ATTEST_NODE_ADDRESS", "NOTIFY_SOCKET"})
            unsetenv(name);
    }
};

TEST_F(node_identity_test, NameIsTheSettingOrRefused)
{
    const struct {
        std::string name;
        std::uint32_t status;
    } cases[] = {{"card 0/RP0", 0},
                 {std::string(31, 'n'), 0},
                 {std::string(32, 'n'), platform_status_from_errno(ENAMETOOLONG)},
                 {"", INVALID},
                 {"n\xC3\xB6"
                  "de",
                  INVALID},
                 {"a\nb", INVALID},
                 {"\x7F", INVALID}};
    for (const auto &row : cases) {
        setenv("ATTEST_NODE_NAME", row.name.c_str(), 1);
        char buffer[32] = "left over";
        EXPECT_EQ(platform_get_node_name(buffer, sizeof buffer), row.status) << row.name;
        EXPECT_STREQ(buffer, row.status == 0 ? row.name.c_str() : "");
    }
    char none[1] = {'x'};
    EXPECT_EQ(platform_get_node_name(none, 0), INVALID);
    EXPECT_EQ(none[0], 'x');
}

TEST_F(node_identity_test, HostNameIsCutToFit)
{
    char host[256] = "";
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    char buffer[256];
    ASSERT_EQ(platform_get_node_name(buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, host);
    ASSERT_EQ(platform_get_node_name(buffer, 3), 0u);
    EXPECT_EQ(buffer, std::string(host).substr(0, 2));
}

TEST_F(node_identity_test, AHostNameThatIsNoTextIsRefused)
{
    const auto refused = [] {
        char buffer[32] = "left over";
        if (unshare(geteuid() == 0 ? CLONE_NEWUTS : CLONE_NEWUTS | CLONE_NEWUSER) != 0)
            return 2;
        if (sethostname("n\xF6"
                        "de",
                        4) != 0)
            return 2;
        return platform_get_node_name(buffer, sizeof buffer) == INVALID && buffer[0] == '\0' ? 0 : 1;
    };
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        _exit(refused());
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == 2)
        GTEST_SKIP() << "no host name of its own here";
    EXPECT_EQ(status, 0);
}

TEST_F(node_identity_test, IdIsADecimalNumberOf32Bits)
{
    std::uint32_t id = 0;
    ASSERT_EQ(platform_get_my_nodeid(&id), 0u);
    EXPECT_EQ(id, 0u);
    setenv("ATTEST_NODE_ID", "4294967295", 1);
    ASSERT_EQ(platform_get_my_nodeid(&id), 0u);
    EXPECT_EQ(id, 0xFFFFFFFFu);
    id = 77;
    for (const char *bad : {"", "4294967296", "-1", "0x10", "7 ", " 7", "7th"}) {
        setenv("ATTEST_NODE_ID", bad, 1);
        EXPECT_EQ(platform_get_my_nodeid(&id), INVALID) << bad;
        EXPECT_EQ(id, 77u);
    }
}

TEST_F(node_identity_test, AddressIsInHostOrder)
{
    std::uint32_t address = 0;
    ASSERT_EQ(nodeid_to_InternalEtherIPAddr(0, &address), 0u);
    EXPECT_EQ(address, 0x7F000001u);
    setenv("ATTEST_NODE_ADDRESS", "192.0.2.7", 1);
    ASSERT_EQ(nodeid_to_InternalEtherIPAddr(0, &address), 0u);
    EXPECT_EQ(address, 0xC0000207u);
    for (const char *bad : {"", "192.0.2", "192.0.2.256", "::1", "localhost", "192.0.2.7 "}) {
        setenv("ATTEST_NODE_ADDRESS", bad, 1);
        EXPECT_EQ(nodeid_to_InternalEtherIPAddr(0, &address), INVALID) << bad;
        EXPECT_EQ(address, 0xC0000207u);
    }
}

TEST_F(node_identity_test, ReadinessReachesTheServiceManager)
{
    EXPECT_EQ(sysmgr_proc_ready(), 0u); // nobody listens
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string path = testing::TempDir() + "notify." + std::to_string(getpid());
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unique_fd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(manager.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    EXPECT_EQ(sysmgr_proc_ready(), 0u);
    char text[64] = "";
    ASSERT_GT(recv(manager.get(), text, sizeof text - 1, MSG_DONTWAIT), 0);
    EXPECT_STREQ(text, "READY=1");
    manager.reset();
    unlink(path.c_str());
    EXPECT_EQ(sysmgr_proc_ready(), platform_status_from_errno(ENOENT));
}

} // namespace
