// Connections, limits and settings: plain sockets, no gRPC on this side.
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "platform/owners.h"
#include "platform/rpc/server.h"
#include "platform/status.h"
#include "tests/rpc/server_harness.h"
#include "tests/rpc/tls_files.h"

namespace {

constexpr auto HAS_ADDRESS = remote_attestation_api_activation::has_address;
constexpr auto HAS_PORT = remote_attestation_api_activation::has_port;

class Connections : public testing::Test {
protected:
    server_harness node;
    void serve() { ASSERT_EQ(node.start(), 0u); }
};

TEST_F(Connections, TheAgentKnowsBothEndsUntilTheDisconnectCallbackHasReturned)
{
    remote_attestation_api_endpoint remote{}, local{}, at_end{};
    node.on_connect = [&](auto client) {
        const auto transport = remote_attestation_api_client_get_transport(client);
        EXPECT_EQ(transport_get_remote_endpoint(transport, &remote), 0u);
        EXPECT_EQ(transport_get_local_endpoint(transport, &local), 0u);
    };
    node.on_disconnect = [&](auto client) {
        const auto transport = remote_attestation_api_client_get_transport(client);
        EXPECT_EQ(transport_get_remote_endpoint(transport, &at_end), 0u);
    };
    serve();
    unique_fd client(connect_silently(node.port));
    sockaddr_in mine{};
    socklen_t length = sizeof mine;
    getsockname(client.get(), reinterpret_cast<sockaddr *>(&mine), &length);
    ASSERT_TRUE(node.wait_count("connect", 1));
    client.reset();
    ASSERT_TRUE(node.wait_count("disconnect", 1));
    EXPECT_EQ(node.order(), "connect disconnect");
    const auto id = node.last("connect").client;
    const auto after = node.on_loop([&] {
        remote_attestation_api_endpoint endpoint{1, 1};
        EXPECT_NE(transport_get_remote_endpoint({id}, &endpoint), 0u);
        EXPECT_NE(transport_set_buffering({id}, 0), 0u);
        return endpoint;
    });
    EXPECT_EQ(remote.address, 0x7F000001u);
    EXPECT_EQ(remote.port, ntohs(mine.sin_port));
    EXPECT_EQ(local.address, 0x7F000001u);
    EXPECT_EQ(local.port, node.port);
    EXPECT_EQ(at_end.port, remote.port);
    EXPECT_EQ(after.address | after.port, 0u);
}

TEST_F(Connections, BufferingOffIsNoDelayOnThatConnection)
{
    serve();
    const unique_fd client(connect_silently(node.port));
    ASSERT_TRUE(node.wait_count("connect", 1));
    const auto id = node.last("connect").client;
    for (const int buffering : {0, 1, 0}) {
        const int no_delay = node.on_loop([&] {
            EXPECT_EQ(transport_set_buffering({id}, buffering), 0u);
            int value = -1;
            socklen_t length = sizeof value;
            getsockopt(rpc_connection_find(id)->socket.get(), IPPROTO_TCP, TCP_NODELAY, &value, &length);
            return value;
        });
        EXPECT_EQ(no_delay, buffering == 0 ? 1 : 0);
    }
}

TEST_F(Connections, UserContextIsKeptPerClientAndGoneWithIt)
{
    serve();
    unique_fd one(connect_silently(node.port));
    const unique_fd two(connect_silently(node.port));
    ASSERT_TRUE(node.wait_count("connect", 2));
    const auto a = node.all()[0].client, b = node.all()[1].client;
    EXPECT_NE(a, b);
    const auto context_of = [&](auto client) {
        return node.on_loop([client] { return remote_attestation_api_server_get_user_context(client); });
    };
    node.on_loop([&] { remote_attestation_api_server_set_user_context(a, 0xabcdabcd); });
    EXPECT_EQ(context_of(a), 0xabcdabcdu);
    EXPECT_EQ(context_of(b), 0u);
    one.reset();
    ASSERT_TRUE(node.wait_count("disconnect", 1));
    node.on_loop([&] { remote_attestation_api_server_set_user_context(a, 1); });
    EXPECT_EQ(context_of(a), 0u);
}

TEST_F(Connections, OneOverTheLimitIsClosedAtOnceAndAFreedPlaceIsTaken)
{
    node.limits.connections = 2;
    serve();
    unique_fd one(connect_silently(node.port));
    const unique_fd two(connect_silently(node.port));
    ASSERT_TRUE(node.wait_count("connect", 2));
    const unique_fd three(connect_silently(node.port));
    EXPECT_TRUE(peer_closes(three.get()));
    EXPECT_EQ(node.order(), "connect connect");
    one.reset();
    ASSERT_TRUE(node.wait_count("disconnect", 1));
    const unique_fd four(connect_silently(node.port));
    EXPECT_TRUE(node.wait_count("connect", 3));
}

TEST_F(Connections, AClientThatSaysNothingLosesItsPlaceAtTheHandshakeLimit)
{
    node.limits.handshake_ms = 300;
    node.limits.connections = 1;
    serve();
    const unique_fd silent(connect_silently(node.port));
    EXPECT_TRUE(peer_closes(silent.get()));
    EXPECT_TRUE(node.wait_count("disconnect", 1));
    EXPECT_EQ(node.order(), "connect disconnect");
}

TEST_F(Connections, HalfATlsHandshakeIsEndedAtTheHandshakeLimit)
{
    const tls_files files;
    const scope_exit unset([] { unsetenv("ATTEST_TLS_DIR"); });
    setenv("ATTEST_TLS_DIR", files.server_directory().c_str(), 1);
    node.limits.handshake_ms = 300;
    serve();
    const unique_fd silent(connect_silently(node.port));
    const unique_fd half(connect_silently(node.port));
    const char record_of_a_hello[] = "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03";
    ASSERT_GT(send(half.get(), record_of_a_hello, sizeof record_of_a_hello - 1, MSG_NOSIGNAL), 0);
    EXPECT_TRUE(peer_closes(silent.get()));
    EXPECT_TRUE(peer_closes(half.get()));
    EXPECT_TRUE(node.wait_count("disconnect", 2));
}

TEST_F(Connections, GarbageInsteadOfHttp2EndsTheConnectionOnly)
{
    serve();
    const unique_fd client(connect_silently(node.port));
    const std::string garbage(100'000, '\xee');
    send(client.get(), garbage.data(), garbage.size(), MSG_NOSIGNAL);
    EXPECT_TRUE(peer_closes(client.get()));
    EXPECT_TRUE(node.wait_count("disconnect", 1));
}

// Takes every descriptor, lets a client connect, and gives them back when accepting rests. Plain posts: the
// sanitizers' own checks need descriptors too.
struct shortage {
    server_harness &node;
    rlimit former{};
    std::vector<int> filler{};
    int client = -1;
    bool connected = false;
    std::atomic<bool> over = false;

    static void begin(void *context)
    {
        auto &self = *static_cast<shortage *>(context);
        sockaddr_in address = loopback(self.node.port);
        self.client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        getrlimit(RLIMIT_NOFILE, &self.former);
        const rlimit little{static_cast<rlim_t>(self.client) + 1, self.former.rlim_max};
        setrlimit(RLIMIT_NOFILE, &little);
        for (int fd = dup(0); fd >= 0; fd = dup(0)) // the gaps below
            self.filler.push_back(fd);
        self.connected = connect(self.client, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
        levm_post(self.node.manager, end, context);
    }
    static void end(void *context)
    {
        auto &self = *static_cast<shortage *>(context);
        if (self.node.server->accept_watch != nullptr)
            return levm_post(self.node.manager, end, context);
        setrlimit(RLIMIT_NOFILE, &self.former);
        for (const int fd : self.filler)
            close(fd);
        self.over = true;
    }
};

TEST_F(Connections, RunningOutOfDescriptorsDelaysAConnectionAndLosesNone)
{
    serve();
    shortage shortage{node, {}, {}};
    levm_post(node.manager, shortage::begin, &shortage);
    ASSERT_TRUE(node.wait([&] { return shortage.over.load(); }));
    const unique_fd client(shortage.client);
    ASSERT_TRUE(shortage.connected);
    EXPECT_TRUE(node.wait_count("connect", 1));
}

TEST_F(Connections, DeactivationEndsThemWithTheirCallbacksAndLeavesThePort)
{
    serve();
    const unique_fd client(connect_silently(node.port));
    ASSERT_TRUE(node.wait_count("connect", 1));
    const std::uint16_t port = node.port;
    node.deactivate();
    EXPECT_EQ(node.order(), "connect disconnect");
    EXPECT_TRUE(peer_closes(client.get()));
    EXPECT_EQ(connect_silently(port), -1);
    EXPECT_EQ(node.on_loop([&] { return remote_attestation_api_server_deactivate(node.server); }), 0u);
    ASSERT_EQ(node.start(), 0u);
    const unique_fd again(connect_silently(node.port));
    EXPECT_TRUE(node.wait_count("connect", 2));
}

// ---- what does not activate ----

TEST(Activation, NoServerIsAStatus)
{
    const remote_attestation_api_activation parameters{HAS_ADDRESS, {0x7F000001, 0}};
    EXPECT_EQ(remote_attestation_api_server_activate(nullptr, &parameters),
              platform_status_from_errno(EINVAL));
    EXPECT_EQ(remote_attestation_api_server_handle_destroy(nullptr), platform_status_from_errno(EINVAL));
    remote_attestation_api_server *server = nullptr;
    EXPECT_NE(remote_attestation_api_server_handle_create(&server, nullptr, 0), 0u);
    EXPECT_EQ(server, nullptr);
}

TEST(Activation, PlaintextIsForLoopbackUnlessAllowed)
{
    server_harness node;
    node.address = 0xC0000201; // 192.0.2.1, on no machine
    EXPECT_EQ(node.start(), platform_status_from_errno(EACCES));
    setenv("ATTEST_RPC_PLAINTEXT", "yes", 1);
    EXPECT_EQ(node.start(), platform_status_from_errno(EACCES));
    setenv("ATTEST_RPC_PLAINTEXT", "1", 1); // now it is the machine that refuses
    EXPECT_EQ(node.start(), platform_status_from_errno(EADDRNOTAVAIL));
    unsetenv("ATTEST_RPC_PLAINTEXT");
    node.address = 0; // every address
    EXPECT_EQ(node.start(), platform_status_from_errno(EACCES));
    node.address = 0x7F123456;
    EXPECT_EQ(node.start(), 0u);
}

TEST(Activation, ThePortComesFromTheEnvironmentWhenAbsentAndBadOnesAreRefused)
{
    server_harness node;
    const scope_exit unset([] { unsetenv("ATTEST_PORT"); });
    for (const char *bad : {"", "0", "65536", "4294967297", "-1", "12x", " 12", "http"}) {
        setenv("ATTEST_PORT", bad, 1);
        EXPECT_EQ(node.start_with({HAS_ADDRESS, {0x7F000001, 0}}), platform_status_from_errno(EINVAL)) << bad;
    }
    EXPECT_EQ(node.start_with({HAS_ADDRESS | HAS_PORT, {0x7F000001, 65536}}),
              platform_status_from_errno(EINVAL));
    EXPECT_EQ(node.start_with({HAS_PORT, {0x7F000001, 0}}), platform_status_from_errno(EINVAL));
    ASSERT_EQ(node.start(), 0u);
    setenv("ATTEST_PORT", std::to_string(node.port).c_str(), 1);
    node.deactivate();
    const std::uint16_t port = node.port;
    ASSERT_EQ(node.start_with({HAS_ADDRESS, {0x7F000001, 0}}), 0u);
    EXPECT_EQ(node.port, port);
    EXPECT_EQ(node.start(), platform_status_from_errno(EALREADY));
}

TEST(Activation, AnAddressInUseIsAStatusAndCanBeTriedAgain)
{
    server_harness node;
    const unique_fd other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    ASSERT_EQ(bind(other.get(), generic, length), 0);
    ASSERT_EQ(listen(other.get(), 1), 0);
    getsockname(other.get(), generic, &length);
    EXPECT_EQ(node.start_with({HAS_ADDRESS | HAS_PORT, {0x7F000001, ntohs(address.sin_port)}}),
              platform_status_from_errno(EADDRINUSE));
    EXPECT_EQ(node.start(), 0u);
}

TEST(Activation, TlsFilesThatCannotServeAreRefused)
{
    const struct {
        const char *file;
        const char *content; // null: the file is missing
        int error;
    } cases[] = {
        {"server.crt", nullptr, ENOENT},
        {"server.key", nullptr, ENOENT},
        {"client-ca.crt", nullptr, ENOENT},
        {"server.crt", "", EBADMSG},
        {"server.key", "", EBADMSG},
        {"client-ca.crt", "", EBADMSG},
        {"server.crt", "no PEM", EBADMSG},
        {"server.key", "no PEM", EBADMSG},
        {"client-ca.crt", "nope", EBADMSG},
        {"server.key", tls_files::other_key, EKEYREJECTED},
        {"server.key", tls_files::encrypted_key, EBADMSG},
    };
    const scope_exit unset([] { unsetenv("ATTEST_TLS_DIR"); });
    for (const auto &c : cases) {
        const tls_files files;
        setenv("ATTEST_TLS_DIR", files.server_directory().c_str(), 1);
        files.replace(c.file, c.content);
        server_harness node;
        EXPECT_EQ(node.start(), platform_status_from_errno(c.error))
            << c.file << ": " << (c.content ? c.content : "-");
    }
    setenv("ATTEST_TLS_DIR", "/nowhere", 1);
    server_harness node;
    EXPECT_EQ(node.start(), platform_status_from_errno(ENOENT));
}

} // namespace
