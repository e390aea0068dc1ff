// Calls through a standard gRPC client: operations, bad requests, who is served.
#include <algorithm>
#include <cstdlib>
#include <future>

#include "platform/rpc/server.h"
#include "platform/status.h"
#include "tests/rpc/calls_fixture.h"
#include "tests/rpc/tls_files.h"

namespace {

namespace api = remote_attestation_api;

const std::string SERVICE = "/remote_attestation_api.RemoteAttestationApi/";

char node_name[] = "node-a";

TEST_F(Calls, GetCertificateCarriesRequestAndAnswer)
{
    node.on_certificate = [](auto client, const get_certificate_request &request, auto id) {
        EXPECT_EQ(request.present, 5u);
        EXPECT_STREQ(request.cert_name, "Kestrin VOXA");
        SystemCertificates record{};
        record.present = SystemCertificates::has_node_name | SystemCertificates::has_nonce;
        record.node_name = node_name;
        record.nonce = request.nonce;
        const get_certificate_response response{1, {&record, 1}};
        EXPECT_EQ(remote_attestation_api_get_certificate_Resp(client, &response, 1, 0, id), 0);
        EXPECT_EQ(remote_attestation_api_get_certificate_Resp(client, &response, 1, 0, id),
                  REMOTE_ATTESTATION_API_NO_CLIENT);
    };
    serve();
    api::get_certificate_request request;
    request.set_cert_name("Kestrin VOXA");
    request.set_nonce(std::string("\0\x01\xff", 3));
    api::get_certificate_response response;
    grpc::ClientContext context;
    ASSERT_TRUE(stub->GetCertificate(&context, request, &response).ok());
    ASSERT_EQ(response.node_data_size(), 1);
    EXPECT_EQ(response.node_data(0).node_name(), "node-a");
    EXPECT_EQ(response.node_data(0).nonce(), request.nonce());
    EXPECT_FALSE(response.node_data(0).has_signature());
    EXPECT_EQ(node.order(), "connect certificate");
    EXPECT_NE(node.last("certificate").number, 0u);
}

TEST_F(Calls, AttestPcrsAndHwIntegrityCarryRequestAndAnswer)
{
    node.on_pcrs = [](auto client, const attest_pcr_request &request, auto id) {
        ASSERT_EQ(request.pcr_indices.count, 3u);
        EXPECT_EQ(request.pcr_indices.items[2], 10u);
        attest_pcr_response response{};
        response.present = attest_pcr_response::has_nonce | attest_pcr_response::has_flags;
        response.nonce = request.nonce;
        response.flags = RESPONSE_ALL_SOURCES_ASKED;
        EXPECT_EQ(remote_attestation_api_attest_pcr_request_Resp(client, &response, 1, 0, id), 0);
    };
    node.on_hw = [](auto client, const get_platform_hw_integrity_request &request, auto id) {
        EXPECT_EQ(request.hash_algo, 2u);
        get_platform_hw_integrity_response response{};
        response.present = get_platform_hw_integrity_response::has_nonce; // present and empty
        EXPECT_EQ(remote_attestation_api_get_platform_hw_integrity_Resp(client, &response, 1, 0, id), 0);
    };
    serve();
    api::attest_pcr_request request;
    for (const auto index : {0u, 7u, 10u})
        request.add_pcr_indices(index);
    request.set_nonce("n");
    api::attest_pcr_response response;
    grpc::ClientContext context, second;
    ASSERT_TRUE(stub->AttestPcrs(&context, request, &response).ok());
    EXPECT_EQ(response.nonce(), "n");
    EXPECT_EQ(response.flags(), 1u);
    api::get_platform_hw_integrity_request hw_request;
    hw_request.set_hash_algo(2);
    api::get_platform_hw_integrity_response hw_response;
    ASSERT_TRUE(stub->GetPlatformHwIntegrity(&second, hw_request, &hw_response).ok());
    EXPECT_TRUE(hw_response.has_nonce());
    EXPECT_EQ(node.order(), "connect pcrs hw");
}

TEST_F(Calls, LogsCarryRequestAndAnswerWholeAndAsAStream)
{
    node.on_boot_log = [](auto client, const auto &, auto id) {
        NodeBootIntegrityLog record{};
        record.present = NodeBootIntegrityLog::has_uptime;
        record.uptime = 77;
        const get_platform_boot_integrity_event_logs_response response{1, {&record, 1}, 0};
        remote_attestation_api_get_platform_boot_integrity_event_logs_Resp(client, &response, 1, 0, id);
    };
    node.on_ima = [](auto client, const auto &request, auto id) {
        EXPECT_EQ(send_ima(client, id, request.start_event, 20'000'000), 0); // larger than the queue's mark
    };
    node.on_stream = [](auto client, const auto &request, auto id) {
        for (std::uint64_t i = 0; i < request.event_count; ++i)
            EXPECT_EQ(send_stream(client, id, i, i * 1000, i + 1 == request.event_count), 0);
    };
    serve();
    grpc::ClientContext boot, ima, streaming;
    api::get_platform_boot_integrity_event_logs_response boot_response;
    ASSERT_TRUE(stub->GetPlatformBootIntegrityEventLogs(&boot, {}, &boot_response).ok());
    EXPECT_EQ(boot_response.node_data(0).uptime(), 77u);
    api::get_platform_ima_event_logs_request request;
    request.set_start_event(std::uint64_t{1} << 40);
    request.set_event_count(3);
    api::get_platform_ima_event_logs_response response;
    const auto status = stub->GetPlatformImaEventLogs(&ima, request, &response);
    ASSERT_TRUE(status.ok()) << status.error_message();
    EXPECT_EQ(response.node_data(0).uptime(), request.start_event());
    EXPECT_EQ(response.node_data(0).events(0).digest().size(), 20'000'000u);
    const auto reader = stub->StreamPlatformImaEventLogs(&streaming, request);
    api::NodeIMAData message;
    for (std::uint64_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(reader->Read(&message));
        EXPECT_EQ(message.uptime(), i);
    }
    EXPECT_FALSE(reader->Read(&message));
    EXPECT_TRUE(reader->Finish().ok());
    EXPECT_EQ(node.order(), "connect boot_log ima stream");
}

TEST_F(Calls, LargeAnswersAreServedOneAfterTheOtherAndAllAtOnce)
{
    node.on_ima = [](auto client, const auto &request, auto id) {
        EXPECT_EQ(send_ima(client, id, request.start_event, 10'000'000), 0);
    };
    serve();
    const auto ask_for = [this](std::uint64_t number) {
        grpc::ClientContext context;
        api::get_platform_ima_event_logs_request request;
        request.set_start_event(number);
        api::get_platform_ima_event_logs_response response;
        const auto status = stub->GetPlatformImaEventLogs(&context, request, &response);
        EXPECT_TRUE(status.ok()) << status.error_message();
        EXPECT_EQ(response.node_data_size() == 1 ? response.node_data(0).uptime() : 0, number);
    };
    for (std::uint64_t i = 1; i <= 10; ++i)
        ask_for(i);
    std::vector<std::thread> clients;
    for (std::uint64_t i = 1; i <= 10; ++i)
        clients.emplace_back(ask_for, i);
    for (auto &client : clients)
        client.join();
    EXPECT_EQ(node.count("ima"), 20u);
}

// ---- requests that are none ----

TEST_F(Calls, ARequestThatCannotBeDecodedIsAnsweredWithoutEvidence)
{
    serve();
    std::string expected = "connect";
    for (const char *operation :
         {"GetCertificate", "AttestPcrs", "GetPlatformBootIntegrityEventLogs", "GetPlatformHwIntegrity",
          "GetPlatformImaEventLogs", "StreamPlatformImaEventLogs"}) {
        for (const std::string request : {"\xff\xff\xff\xff", "\x0a\x7f", "\x0a"}) {
            std::string answer = "untouched";
            const auto status = ask(channel, SERVICE + operation, request, &answer);
            EXPECT_TRUE(status.ok()) << operation << ": " << status.error_message();
            EXPECT_EQ(answer, "") << operation;
            expected += " error";
        }
    }
    // The agent is told of each, once, and none reaches an operation of it.
    ASSERT_TRUE(node.wait_count("error", 18));
    EXPECT_EQ(node.order(), expected);
    EXPECT_EQ(node.last("error").number, platform_status_from_errno(EBADMSG));
}

TEST_F(Calls, OnlyTheCallItselfIsAnRpcError)
{
    serve();
    node.on_loop([&] { remote_attestation_api_server_set_attest_pcrs_callback(node.server, nullptr); });
    std::string answer;
    const auto code = [&](const std::string &path, const std::string &request) {
        return ask(channel, path, request, &answer).error_code();
    };
    EXPECT_EQ(code(SERVICE + "GetEverything", ""), grpc::StatusCode::UNIMPLEMENTED);
    EXPECT_EQ(code("/", ""), grpc::StatusCode::UNIMPLEMENTED);
    EXPECT_EQ(code(SERVICE + "AttestPcrs", ""), grpc::StatusCode::UNIMPLEMENTED);
    EXPECT_EQ(code(SERVICE + "GetCertificate", std::string(70'000, 'x')),
              grpc::StatusCode::RESOURCE_EXHAUSTED);
    raw_call empty(channel, SERVICE + "GetCertificate");
    empty.writes_done();
    EXPECT_EQ(empty.finish().error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_EQ(node.count("certificate") + node.count("pcrs"), 0u);
    EXPECT_EQ(node.count("disconnect"), 0u);
}

TEST_F(Calls, ACompressedRequestIsRefusedBeforeItUnfolds)
{
    serve();
    grpc::ClientContext context;
    context.set_compression_algorithm(GRPC_COMPRESS_GZIP);
    api::get_certificate_request request;
    request.set_cert_name(std::string(60'000, 'a'));
    api::get_certificate_response response;
    EXPECT_EQ(stub->GetCertificate(&context, request, &response).error_code(),
              grpc::StatusCode::UNIMPLEMENTED);
    EXPECT_EQ(node.count("certificate"), 0u);
}

TEST_F(Calls, AnAnswerThatTheWireCannotCarryNamesTheStream)
{
    node.on_ima = [](auto client, const auto &, auto id) {
        // More than there is; only its length is looked at.
        EXPECT_EQ(send_ima(client, id, 1, std::size_t{3} << 30), REMOTE_ATTESTATION_API_NOT_SENT);
    };
    serve();
    grpc::ClientContext context;
    api::get_platform_ima_event_logs_response response;
    const auto status = stub->GetPlatformImaEventLogs(&context, {}, &response);
    EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_NE(status.error_message().find("StreamPlatformImaEventLogs"), std::string::npos);
}

TEST_F(Calls, AConnectionWithoutCallsIsEndedAtTheIdleLimit)
{
    node.limits.idle_ms = 300;
    serve();
    std::string answer;
    EXPECT_TRUE(ask(channel, "/grpc.health.v1.Health/Check", "", &answer).ok());
    EXPECT_TRUE(node.wait_count("disconnect", 1));
    EXPECT_EQ(node.order(), "connect disconnect");
}

TEST_F(Calls, ACallWhoseRequestNeverComesEndsItsConnection)
{
    node.limits.stall_ms = 300;
    node.limits.sweep_ms = 50;
    serve();
    raw_call call(channel, SERVICE + "GetCertificate");
    EXPECT_TRUE(node.wait_count("disconnect", 1));
    EXPECT_EQ(node.order(), "connect disconnect");
    EXPECT_FALSE(call.finish().ok());
}

TEST_F(Calls, RequestsThatCameTogetherLeaveTheLoopItsTurns)
{
    levm_watch_ptr timer;
    node.on_certificate = [&](auto client, const auto &, auto id) {
        if (timer == nullptr) { // the first one ends when the two others wait, and the timer is due
            timer.reset(levm_watch_timer(
                node.manager, 0,
                [](void *harness) { static_cast<server_harness *>(harness)->tell("timer", 0, 0); }, &node));
            EXPECT_TRUE(node.wait([this] { return waiting() == 2; }));
        }
        const get_certificate_response response{};
        remote_attestation_api_get_certificate_Resp(client, &response, 1, 0, id);
    };
    serve();
    ask_at_once(3);
    EXPECT_LT(node.order().find("timer"), node.order().rfind("certificate")) << node.order();
    node.on_loop([&timer] { timer.reset(); });
}

TEST_F(Calls, MoreCallsThanAConnectionMayHaveWaitAtTheClient)
{
    node.limits.calls_per_connection = 3;
    serve();
    grpc::CompletionQueue queue; // nobody looks at it before the end
    std::vector<std::unique_ptr<grpc::ClientContext>> contexts;
    std::vector<std::unique_ptr<grpc::ClientAsyncReader<api::NodeIMAData>>> readers;
    for (int i = 0; i < 5; ++i) {
        contexts.push_back(std::make_unique<grpc::ClientContext>());
        readers.push_back(stub->AsyncStreamPlatformImaEventLogs(contexts.back().get(), {}, &queue, nullptr));
    }
    ASSERT_TRUE(node.wait_count("stream", 3));
    grpc::ClientContext late;
    late.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(200));
    api::get_certificate_response response;
    EXPECT_EQ(stub->GetCertificate(&late, {}, &response).error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
    EXPECT_EQ(node.count("stream") + node.count("certificate"), 3u);
    const told one = node.last("stream");
    EXPECT_EQ(node.on_loop([&] { return send_stream(one.client, one.number, 0, 0, true); }), 0);
    EXPECT_TRUE(node.wait_count("stream", 4));
    for (const auto &context : contexts)
        context->TryCancel();
    queue.Shutdown();
    void *ignored = nullptr;
    for (bool ok = false; queue.Next(&ignored, &ok);) {
    }
}

TEST_F(Calls, ACallThatIsOverIsNotStalledWhileOthersAreAnswered)
{
    node.limits.stall_ms = 1500;
    node.limits.sweep_ms = 50;
    node.on_certificate = [](auto client, const auto &, auto id) {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        const get_certificate_response response{};
        remote_attestation_api_get_certificate_Resp(client, &response, 1, 0, id);
    };
    serve();
    ask_at_once(6);
    EXPECT_EQ(node.count("disconnect"), 0u);
}

TEST_F(Calls, CallsThatAreCancelledAtOnceDoNotPileUp)
{
    node.limits.calls_per_connection = 3;
    serve();
    std::string answer;
    ASSERT_TRUE(ask(channel, "/grpc.health.v1.Health/Check", "", &answer).ok()); // connected
    const held_loop held(node);
    for (std::size_t i = 1; i <= 6; ++i) {
        raw_call call(channel, SERVICE + "GetCertificate");
        call.write("");
        EXPECT_TRUE(node.wait([&] { return waiting(rpc_event::kind::request) == i; }));
    }
    raw_call more(channel, SERVICE + "GetCertificate");
    more.write("");
    EXPECT_EQ(more.finish().error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
}

// ---- who is served ----

class Tls : public Calls {
protected:
    tls_files files;
    void SetUp() override { setenv("ATTEST_TLS_DIR", files.server_directory().c_str(), 1); }
    void TearDown() override { unsetenv("ATTEST_TLS_DIR"); }
};

TEST_F(Tls, OnlyAClientOfTheCaIsServed)
{
    ASSERT_EQ(node.start(), 0u);
    std::size_t refused = 0;
    for (const std::string who : {"nobody", "stranger", "plaintext", "client"}) {
        SCOPED_TRACE(who);
        grpc::SslCredentialsOptions options;
        options.pem_root_certs = files.read("ca.crt");
        if (who == "client" || who == "stranger") { // the stranger is another CA's
            options.pem_cert_chain = files.read(who + ".crt");
            options.pem_private_key = files.read(who + ".key");
        }
        connect(who == "plaintext" ? grpc::InsecureChannelCredentials() : grpc::SslCredentials(options));
        std::string answer;
        const auto status = ask(channel, "/grpc.health.v1.Health/Check", "", &answer);
        EXPECT_EQ(status.error_code(), who == "client" ? grpc::StatusCode::OK : grpc::StatusCode::UNAVAILABLE)
            << status.error_message();
        EXPECT_TRUE(who == "client" || node.wait_count("disconnect", ++refused));
    }
}

} // namespace
