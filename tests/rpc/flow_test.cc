// Flow control, and clients that stop reading, cancel, or vanish.
#include <fstream>

#include <gmock/gmock.h>

#include "platform/owners.h"
#include "platform/rpc/server.h"
#include "platform/status.h"
#include "tests/rpc/calls_fixture.h"

namespace {

namespace api = remote_attestation_api;

constexpr std::size_t MESSAGE = 400'000; // about 1000 events
constexpr std::uint64_t MIB = std::uint64_t{1} << 20;

std::uint64_t resident_bytes()
{
    std::uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * 4096;
}

// What a client has of a stream.
struct client_stream {
    client_stream() { context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(90)); }
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<api::NodeIMAData>> reader;
};

class Flow : public Calls {
protected:
    // The agent's one stream: sends `next` to `end`, stops when it is refused, goes on when it is told to.
    remote_attestation_api_client client = 0;
    std::uint32_t request_id = 0;
    std::uint64_t next = 0, end = 10'000;
    bool takes_up = true; // on a resume

    Flow() { arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0); } // the client's window stays at 64 KiB
    // The callback that sent the end may be in its last lines, and another one come.
    ~Flow() override
    {
        node.on_loop([this] { node.on_stream = nullptr, node.on_resume = nullptr; });
    }
    void serve()
    {
        node.on_boot_log = [](auto who, const auto &, auto id) {
            const get_platform_boot_integrity_event_logs_response response{};
            remote_attestation_api_get_platform_boot_integrity_event_logs_Resp(who, &response, 1, 0, id);
        };
        node.on_stream = [this](auto who, const auto &, auto id) {
            client = who;
            request_id = id;
            send_until_refused();
        };
        node.on_resume = [this](auto who) {
            EXPECT_EQ(who, client);
            if (takes_up)
                send_until_refused();
        };
        Calls::serve();
    }
    void send_until_refused()
    {
        for (; next < end; ++next) {
            const auto result = send_stream(client, request_id, next, MESSAGE, next + 1 == end);
            if (result == 0)
                continue;
            node.tell(result == REMOTE_ATTESTATION_API_FLOW_CLOSED ? "refused" : "failed", client,
                      request_id);
            return;
        }
        node.tell("sent", client, request_id);
    }
    std::unique_ptr<client_stream> open_stream()
    {
        auto stream = std::make_unique<client_stream>();
        stream->reader = stub->StreamPlatformImaEventLogs(&stream->context, {});
        return stream;
    }
    std::unique_ptr<client_stream> open_refused_stream()
    {
        auto stream = open_stream();
        EXPECT_TRUE(node.wait_count("refused", 1));
        return stream;
    }
    // An answer of so many bytes, of which nothing is read yet.
    std::unique_ptr<raw_call> ask_large(std::size_t bytes)
    {
        node.limits.sweep_ms = 50;
        node.on_ima = [bytes](auto who, const auto &, auto id) { EXPECT_EQ(send_ima(who, id, 1, bytes), 0); };
        Calls::serve();
        auto call = std::make_unique<raw_call>(
            channel, "/remote_attestation_api.RemoteAttestationApi/GetPlatformImaEventLogs");
        call->write("");
        call->writes_done();
        EXPECT_TRUE(node.wait_count("ima", 1));
        return call;
    }
    // Whether the node ends the connection while its client asks for something else, so often.
    bool is_ended_beside_questions(int questions)
    {
        std::string answer;
        for (int i = 0; i < questions && node.count("disconnect") == 0; ++i) {
            ask(channel, "/grpc.health.v1.Health/Check", "", &answer);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return node.count("disconnect") == 1;
    }
    std::int32_t send_late()
    {
        return node.on_loop([this] { return send_stream(client, request_id, next, 10, false); });
    }
    grpc::StatusCode ask_boot_log()
    {
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
        api::get_platform_boot_integrity_event_logs_response response;
        return stub->GetPlatformBootIntegrityEventLogs(&context, {}, &response).error_code();
    }
};

TEST_F(Flow, AClientThatStopsReadingIsRefusedAndMemoryStaysBounded)
{
    serve();
    const stream_message warm(0, 0);
    const std::uint64_t before = resident_bytes();
    const auto stream = open_refused_stream();
    const std::uint64_t accepted = node.on_loop([this] { return next * MESSAGE; });
    // The queue, and what the sockets and the client's library hold; far from the 4 GB on offer.
    EXPECT_GT(accepted, 7 * MIB);
    EXPECT_LT(accepted, 32 * MIB);
    EXPECT_LT(resident_bytes(), before + 64 * MIB);
    EXPECT_EQ(send_late(), 0); // a small one fits still
    stream->context.TryCancel();
    EXPECT_TRUE(node.wait_count("error", 1));
}

TEST_F(Flow, AReaderGetsEverythingInOrderAndAPauseEndsWithOneResume)
{
    end = 500; // 200 MB
    serve();
    auto stream = open_refused_stream();
    EXPECT_EQ(node.count("resume"), 0u);
    api::NodeIMAData message;
    std::uint64_t read = 0;
    for (; stream->reader->Read(&message); ++read)
        ASSERT_EQ(message.uptime(), read);
    EXPECT_TRUE(stream->reader->Finish().ok());
    EXPECT_EQ(read, end);
    const std::size_t pauses = node.count("refused");
    EXPECT_EQ(node.count("resume"), pauses);
    EXPECT_LT(pauses, 500u / 10); // few, not one a message
    EXPECT_EQ(node.count("error"), 0u);
}

TEST_F(Flow, AMessageLargerThanTheMarksGoesOutAloneAndRefusesOnesBehindItUntilItIsTaken)
{
    node.on_stream = [this](auto who, const auto &, auto id) {
        client = who;
        request_id = id;
        EXPECT_EQ(send_stream(client, id, 0, 100'000, false), 0);
        // The first may be on its way already, or not.
        if (send_stream(client, id, 1, 30 * MIB, false) == 0)
            next = 2;
        else
            next = 1;
        EXPECT_EQ(send_stream(client, id, next, 30 * MIB, false), REMOTE_ATTESTATION_API_FLOW_CLOSED);
    };
    node.on_resume = [this](auto) {
        for (; next < 3; ++next) {
            if (send_stream(client, request_id, next, 30 * MIB, next == 2) != 0)
                return;
        }
    };
    Calls::serve();
    const auto stream = open_stream();
    api::NodeIMAData message;
    for (std::uint64_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(stream->reader->Read(&message));
        EXPECT_EQ(message.uptime(), i);
    }
    EXPECT_FALSE(stream->reader->Read(&message));
    EXPECT_TRUE(stream->reader->Finish().ok());
}

TEST_F(Flow, AClientThatVanishesWhilePausedIsAnErrorThenADisconnect)
{
    serve();
    node.on_error = [this](auto who) {
        EXPECT_EQ(who, client);
        EXPECT_EQ(send_stream(client, request_id, next, 10, true), REMOTE_ATTESTATION_API_NO_CLIENT);
    };
    auto stream = open_refused_stream();
    stream->context.TryCancel();
    stub.reset();
    channel.reset();
    stream.reset();
    ASSERT_TRUE(node.wait_count("disconnect", 1));
    EXPECT_EQ(node.order(), "connect stream refused error disconnect");
    EXPECT_EQ(send_late(), REMOTE_ATTESTATION_API_NO_CLIENT);
}

TEST_F(Flow, ACancelledStreamIsAnErrorAndTheConnectionStays)
{
    serve();
    const auto stream = open_refused_stream();
    stream->context.TryCancel();
    ASSERT_TRUE(node.wait_count("error", 1));
    EXPECT_EQ(send_late(), REMOTE_ATTESTATION_API_NO_CLIENT);
    EXPECT_EQ(ask_boot_log(), grpc::StatusCode::OK);
    EXPECT_EQ(node.order(), "connect stream refused error boot_log");
}

TEST_F(Flow, AStalledClientIsAnErrorThenADisconnect)
{
    node.limits.stall_ms = 500;
    node.limits.sweep_ms = 50;
    serve();
    const auto stream = open_refused_stream();
    ASSERT_TRUE(node.wait_count("disconnect", 1));
    EXPECT_EQ(node.order(), "connect stream refused error disconnect");
    EXPECT_EQ(node.last("error").number, platform_status_from_errno(ETIMEDOUT));
}

TEST_F(Flow, AClientThatReadsSlowlyIsNotStalled)
{
    node.limits.stall_ms = 4000;
    node.limits.sweep_ms = 50;
    end = 120;
    serve();
    const auto stream = open_refused_stream();
    api::NodeIMAData message;
    std::uint64_t read = 0;
    for (; stream->reader->Read(&message); ++read) {
        if (read < 100)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(read, end);
    EXPECT_EQ(node.count("error"), 0u);
}

TEST_F(Flow, SmallAnswersPassAFullQueueAndLargeOnesAreRefusedWithAStatus)
{
    serve();
    std::size_t size = 1000;
    node.on_ima = [&](auto who, const auto &, auto id) { send_ima(who, id, 1, size); };
    const auto stream = open_refused_stream();
    for (const auto &[bytes, code] :
         {std::pair{std::size_t{1000}, grpc::StatusCode::OK},
          std::pair{std::size_t{3'000'000}, grpc::StatusCode::RESOURCE_EXHAUSTED}}) {
        node.on_loop([&, bytes = bytes] { size = bytes; });
        grpc::ClientContext context;
        api::get_platform_ima_event_logs_response response;
        EXPECT_EQ(stub->GetPlatformImaEventLogs(&context, {}, &response).error_code(), code);
    }
    EXPECT_EQ(node.count("error"), 0u);
    stream->context.TryCancel();
    EXPECT_TRUE(node.wait_count("error", 1));
}

TEST_F(Flow, RequestsForWholeLogsWaitWhileAllQueuesTogetherAreFull)
{
    node.limits.all_queues_bytes = MIB; // less than one stream's
    node.limits.sweep_ms = 50;
    serve();
    std::size_t quote_size = 0;
    node.on_hw = [&](auto who, const auto &, auto id) {
        std::vector<std::uint8_t> quote(quote_size);
        tpm_hw_integrity record{};
        record.present = tpm_hw_integrity::has_quote;
        record.quote = {quote.data(), quote.size()};
        get_platform_hw_integrity_response response{};
        response.present = get_platform_hw_integrity_response::has_node_data;
        response.node_data = {&record, 1};
        remote_attestation_api_get_platform_hw_integrity_Resp(who, &response, 1, 0, id);
    };
    const auto ask_hw = [this] {
        grpc::ClientContext context;
        api::get_platform_hw_integrity_response response;
        return stub->GetPlatformHwIntegrity(&context, {}, &response).error_code();
    };
    const auto stream = open_refused_stream();
    connect(); // another client
    auto answer = std::async(std::launch::async, [this] { return ask_boot_log(); });
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
    EXPECT_EQ(ask_hw(), grpc::StatusCode::OK);
    EXPECT_EQ(node.count("boot_log"), 0u) << "the request waits";
    node.on_loop([&] { quote_size = 2 * MIB; });
    EXPECT_EQ(ask_hw(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    node.on_loop([this] {
        node.on_stream = [](auto who, const auto &, auto id) { // as with a management controller's list
            EXPECT_EQ(send_stream(who, id, 0, 2 * MIB, false), REMOTE_ATTESTATION_API_NOT_SENT);
        };
    });
    grpc::ClientContext context;
    EXPECT_EQ(stub->StreamPlatformImaEventLogs(&context, {})->Finish().error_code(),
              grpc::StatusCode::RESOURCE_EXHAUSTED);
    stream->context.TryCancel();
    EXPECT_EQ(answer.get(), grpc::StatusCode::OK);
    EXPECT_TRUE(
        node.wait([&] { return node.on_loop([&] { return rpc_connections_queued(*node.server); }) == 0; }));
    EXPECT_EQ(ask_hw(), grpc::StatusCode::OK);
}

TEST_F(Flow, ACancelledCallDoesNotDropAnotherOnesPause)
{
    end = 100;
    serve();
    const auto stream = open_refused_stream();
    grpc::ClientContext context; // the harness does not answer this call
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(2000));
    api::get_platform_ima_event_logs_response response;
    EXPECT_EQ(stub->GetPlatformImaEventLogs(&context, {}, &response).error_code(),
              grpc::StatusCode::DEADLINE_EXCEEDED);
    ASSERT_TRUE(node.wait_count("ima", 1));
    const told call = node.last("ima");
    EXPECT_TRUE(node.wait([&] {
        return node.on_loop([&] { return send_stream(call.client, call.number, 0, 1, false); }) != 0;
    }));
    api::NodeIMAData message;
    while (stream->reader->Read(&message)) {
    }
    EXPECT_TRUE(stream->reader->Finish().ok());
    EXPECT_EQ(node.count("error"), 0u);
}

TEST_F(Flow, ACancelledSecondStreamDoesNotDropTheFirstOnesPause)
{
    end = 100;
    serve();
    const auto stream = open_refused_stream();
    node.on_loop([this] {
        node.on_stream = [](auto who, const auto &, auto id) {
            EXPECT_EQ(send_stream(who, id, 0, MESSAGE, true), REMOTE_ATTESTATION_API_FLOW_CLOSED);
        };
    });
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(500));
    const auto second = stub->StreamPlatformImaEventLogs(&context, {});
    EXPECT_EQ(second->Finish().error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
    api::NodeIMAData message;
    while (stream->reader->Read(&message)) {
    }
    EXPECT_TRUE(stream->reader->Finish().ok());
    EXPECT_EQ(node.count("error"), 0u);
}

TEST_F(Flow, ALargeAnswerMayTakeLongerWhileBytesAreAcknowledged)
{
    node.limits.stall_ms = 1000;
    const auto slow = ask_large(8 * MIB);
    EXPECT_FALSE(is_ended_beside_questions(40)) << "2 s of the 8 that it has";
    std::string answer;
    EXPECT_TRUE(slow->read(&answer));
    EXPECT_TRUE(slow->finish().ok());
    EXPECT_EQ(node.count("disconnect"), 0u);
}

TEST_F(Flow, OtherAnswersDoNotKeepALargeOneThatNobodyTakes)
{
    node.limits.stall_ms = 500;
    const auto stuck = ask_large(2 * MIB);
    EXPECT_TRUE(is_ended_beside_questions(600));
}

TEST_F(Flow, ACancelledPauseIsToldBeforeTheNextRequest)
{
    serve();
    const auto first = open_refused_stream();
    std::unique_ptr<client_stream> second;
    {
        const held_loop held(node);
        second = open_stream();
        EXPECT_TRUE(node.wait([this] { return waiting() == 1; }));
        first->context.TryCancel();
        EXPECT_TRUE(node.wait([this] { return waiting() == 2; }));
    }
    ASSERT_TRUE(node.wait_count("stream", 2));
    EXPECT_THAT(node.order(), testing::StartsWith("connect stream refused error stream"));
    EXPECT_TRUE(node.wait_count("refused", 2));
    EXPECT_EQ(node.count("error"), 1u);
}

TEST_F(Flow, AStreamThatIsNotTakenUpAgainEndsWithAStatus)
{
    takes_up = false;
    serve();
    const auto stream = open_refused_stream();
    api::NodeIMAData message;
    while (stream->reader->Read(&message)) {
    }
    EXPECT_EQ(stream->reader->Finish().error_code(), grpc::StatusCode::ABORTED);
    EXPECT_EQ(node.count("resume"), 1u);
    EXPECT_EQ(send_late(), REMOTE_ATTESTATION_API_NO_CLIENT);
}

TEST_F(Flow, DeactivationDoesNotWaitForAStalledClient)
{
    serve();
    auto stream = open_refused_stream();
    node.deactivate();
    EXPECT_EQ(node.order(), "connect stream refused error disconnect");
    EXPECT_EQ(send_late(), REMOTE_ATTESTATION_API_NO_CLIENT);
    api::NodeIMAData message;
    while (stream->reader->Read(&message)) {
    }
    const grpc::Status ended = stream->reader->Finish();
    EXPECT_FALSE(ended.ok());
    EXPECT_NE(ended.error_code(), grpc::StatusCode::DEADLINE_EXCEEDED)
        << "deactivating waited for the client's limit";
}

} // namespace
