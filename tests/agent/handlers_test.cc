#include <gmock/gmock.h>

#include <optional>
#include <string>

#include "agent/agent_state.h"
#include "agent/handlers.h"
#include "agent/status.h"
#include "ima/ima_stream.h"
#include "tests/agent/scripted_sources.h"
#include "tests/support/trace_capture.h"

using scripted::now;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr remote_attestation_api_client CLIENT = 77;

struct handlers : testing::Test {
    void SetUp() override
    {
        now = {};
        at_agent_state = {};
        trace_captured.clear();
        status_domain_register(&attest_status_domain);
    }
};

template <class Request>
void ask_for_nothing(void (*handler)(remote_attestation_api_client, const Request *, std::uint32_t))
{
    const Request request = {};
    handler(CLIENT, &request, 5);
}

struct one_shot {
    const char *name;
    void (*call)();
    const char *entry_line;
    bool traces_no_data;
    std::uint32_t flags;
    const char *asked_first;
};

constexpr one_shot one_shots[] = {
    {"get_certificate", [] { ask_for_nothing(get_certificate); },
     "Attestation Agent: get_certificate return code 5\n", true, 0, "bmc"},
    {"attest_pcrs", [] { ask_for_nothing(attest_pcrs); }, "Attestation agent:attest_pcrs request id 5\n",
     true, 1, "bmc"},
    {"get_platform_boot_integrity_event_logs",
     [] { ask_for_nothing(get_platform_boot_integrity_event_logs); },
     "Attestation agent: get_platform_boot_integrity_event_logs request id 5\n", false, 1, "bmc"},
    {"get_platform_ima_event_logs", [] { ask_for_nothing(get_platform_ima_event_logs); },
     "Attestation agent: attest_ima request id 5\n", false, 1, "bmc"},
    {"get_platform_hw_integrity", [] { ask_for_nothing(get_platform_hw_integrity); },
     "Attestation agent:hw integrity request id 5\n", true, 0, "local"},
};

template <class Request>
Request request_with_nonce(std::string &nonce)
{
    Request request = {};
    request.present = Request::has_nonce;
    request.nonce = {reinterpret_cast<std::uint8_t *>(nonce.data()), nonce.size()};
    return request;
}

} // namespace

TEST_F(handlers, AnswerWithEveryCombinationOfSources)
{
    for (const one_shot &operation : one_shots) {
        for (bool local : {true, false}) {
            for (bool bmc : {true, false}) {
                SCOPED_TRACE(std::string(operation.name) + (local ? " local" : "") + (bmc ? " bmc" : ""));
                now = {};
                trace_captured.clear();
                now.local_status = local ? ATTEST_OK : ATTEST_ERR_KOV_COMM;
                now.bmc_status = bmc ? ATTEST_OK : ATTEST_ERR_NO_DATA;
                operation.call();

                std::vector<std::string> records;
                if (local)
                    records.push_back("local");
                if (bmc)
                    records.push_back("bmc");
                ASSERT_EQ(now.sent.size(), 1U);
                const scripted::sent_message &sent = now.sent[0];
                EXPECT_EQ(sent.records, records);
                EXPECT_EQ(sent.last, 1);
                EXPECT_EQ(sent.rpc_status, 0U);
                EXPECT_EQ(sent.request_id, 5U);
                EXPECT_EQ(sent.flags, operation.flags);
                EXPECT_EQ(now.asked.front(), operation.asked_first);
                const std::string name = std::string(operation.name) + "(): ";
                EXPECT_EQ(trace_captured.front(), name + operation.entry_line);
                EXPECT_EQ(trace_has(name + "No data available Failed to talk to KOV"),
                          records.empty() && operation.traces_no_data);
            }
        }
    }
}

// With evidence and without it; an empty one by hardware integrity alone; nobody is asked for one too long.
TEST_F(handlers, NoncesAreEchoedByTheirLength)
{
    for (std::size_t length : {0, 64, 65}) {
        for (std::uint32_t status : {ATTEST_OK, ATTEST_ERR_KOV_COMM}) {
            SCOPED_TRACE(std::to_string(length) + " bytes, status " + std::to_string(status));
            now = {};
            now.local_status = now.bmc_status = status;
            trace_captured.clear();
            std::string nonce(length, 'n');
            auto pcrs = request_with_nonce<attest_pcr_request>(nonce);
            auto hw = request_with_nonce<get_platform_hw_integrity_request>(nonce);
            attest_pcrs(CLIENT, &pcrs, 1);
            get_platform_hw_integrity(CLIENT, &hw, 2);

            const bool too_long = length > 64;
            ASSERT_EQ(now.sent.size(), 2U);
            EXPECT_EQ(now.sent[0].nonce, length == 64 ? std::optional(nonce) : std::nullopt);
            EXPECT_EQ(now.sent[1].nonce, too_long ? std::nullopt : std::optional(nonce));
            EXPECT_EQ(now.asked.empty(), too_long);
            for (const char *name : {"attest_pcrs", "get_platform_hw_integrity"})
                EXPECT_EQ(trace_has(name + std::string("(): No data available Invalid parameter")), too_long);
        }
    }
}

TEST_F(handlers, CardsFollowTheOtherRecords)
{
    get_platform_hw_integrity_request hw = {};
    now.cards = 8;
    get_platform_hw_integrity(CLIENT, &hw, 1);
    ASSERT_EQ(now.sent.at(0).records.size(), 10U);
    EXPECT_EQ(now.sent[0].records[2], "card");
    EXPECT_TRUE(trace_has("get_platform_hw_integrity(): Received data from local Zuvari"));
    EXPECT_TRUE(trace_has("get_platform_hw_integrity(): Received data from BMC"));
    EXPECT_TRUE(trace_has("get_platform_hw_integrity(): Received data from CPUless cards 8"));
}

TEST_F(handlers, AbsentFieldsOfAnImaRequestCountAsZero)
{
    get_platform_ima_event_logs_request request = {};
    request.start_event = 9;
    request.event_count = 9;
    get_platform_ima_event_logs(CLIENT, &request, 1);
    EXPECT_EQ(now.start_event, 0U);
    EXPECT_EQ(now.event_count, 0U);
    EXPECT_EQ(now.stream, 0);
    request.present = request.has_start_event | request.has_event_count;
    stream_platform_ima_event_logs(CLIENT, &request, 1);
    EXPECT_EQ(now.start_event, 9U);
    EXPECT_EQ(now.event_count, 9U);
    EXPECT_EQ(now.stream, 1);
}

TEST_F(handlers, StreamSendsTheBmcFirstAndEndsWithTheLastChunk)
{
    get_platform_ima_event_logs_request request = {};
    now.local_status = ATTEST_ERR_MORE_DATA;
    now.stream_events = 2;
    stream_platform_ima_event_logs(CLIENT, &request, 6);
    ASSERT_EQ(now.sent.size(), 2U);
    EXPECT_THAT(now.sent[0].records, ElementsAre("bmc"));
    EXPECT_EQ(now.sent[0].last, 0);
    EXPECT_THAT(now.sent[1].event_numbers, ElementsAre(3001, 3002));
    EXPECT_EQ(now.sent[1].last, 1);
    EXPECT_EQ(now.sent[1].request_id, 6U);
}

TEST_F(handlers, StreamThatIsDoneOrPausedSendsNothingMore)
{
    get_platform_ima_event_logs_request request = {};
    now.bmc_status = ATTEST_ERR_NO_DATA;
    for (std::uint32_t status : {ATTEST_OK, ATTEST_ERR_FLOW_PAUSED}) {
        now.local_status = status;
        stream_platform_ima_event_logs(CLIENT, &request, 1);
        EXPECT_THAT(now.sent, IsEmpty());
    }
}

TEST_F(handlers, RefusedFinalMessageWaitsAndGoesOnFromItsFirstEvent)
{
    get_platform_ima_event_logs_request request = {};
    now.bmc_status = ATTEST_ERR_NO_DATA;
    now.local_status = ATTEST_ERR_MORE_DATA;
    now.stream_send_result = REMOTE_ATTESTATION_API_FLOW_CLOSED;
    now.stream_events = 2;
    stream_platform_ima_event_logs(CLIENT, &request, 6);
    EXPECT_EQ(now.user_context, STREAM_PAUSED_MARK);

    now.stream_send_result = 0;
    flow_control_cb(CLIENT);
    EXPECT_TRUE(trace_has("flow_control_cb(): Attestation Agent: received flow resume callback for 77"));
    EXPECT_TRUE(trace_has("at_ima_stream_resume(): IMA resuming paused flow id 6\n"));
    EXPECT_EQ(now.user_context, 0U);
    EXPECT_EQ(now.start_event, 3001U);
    EXPECT_EQ(now.unsent, 3001U);
    EXPECT_EQ(now.event_count, 0U);
    EXPECT_EQ(now.sent.back().request_id, 6U);
    EXPECT_EQ(now.sent.back().last, 1);
    EXPECT_EQ(std::count(now.asked.begin(), now.asked.end(), "bmc"), 1)
        << "a resumed stream asked the BMC again";
}

TEST_F(handlers, RefusedFinalMessageIsKeptWithItsLimitIfItHasEvents)
{
    get_platform_ima_event_logs_request request = {};
    request.present = request.has_event_count;
    request.event_count = 500;
    now.stream_send_result = REMOTE_ATTESTATION_API_FLOW_CLOSED;
    now.local_status = ATTEST_ERR_SERVICE_FAILED;
    stream_platform_ima_event_logs(CLIENT, &request, 6);
    EXPECT_EQ(at_agent_state.at_paused_stream.paused, 0);
    EXPECT_EQ(now.user_context, 0U);

    now.local_status = ATTEST_ERR_MORE_DATA;
    now.stream_events = 2;
    stream_platform_ima_event_logs(CLIENT, &request, 6);
    EXPECT_EQ(at_agent_state.at_paused_stream.event_count, 2U);
}

TEST_F(handlers, ResumeWithoutAPausedStreamAnswersEmpty)
{
    ASSERT_EQ(at_ima_stream_pause(CLIENT, 6, 2000, 0), 1);
    now.user_context = STREAM_PAUSED_MARK;
    flow_control_cb(CLIENT + 1);
    ASSERT_EQ(now.sent.size(), 1U);
    EXPECT_THAT(now.sent[0].records, IsEmpty());
    EXPECT_EQ(now.sent[0].last, 1);
    EXPECT_EQ(now.sent[0].request_id, 0U);
    EXPECT_THAT(now.asked, IsEmpty());
    EXPECT_EQ(at_agent_state.at_paused_stream.paused, 1) << "another client's stream was dropped";
}

TEST_F(handlers, ErrorDropsTheClientsPausedStreamOnly)
{
    ASSERT_EQ(at_ima_stream_pause(CLIENT, 6, 2000, 0), 1);
    EXPECT_EQ(at_ima_stream_pause(CLIENT + 1, 7, 1, 0), 0);
    EXPECT_TRUE(trace_has("at_ima_stream_pause(): IMA request pending with 6, giving up on id 7\n"));
    error_cb(CLIENT + 1, nullptr, 3);
    EXPECT_EQ(at_agent_state.at_paused_stream.paused, 1);
    error_cb(CLIENT, nullptr, 3);
    EXPECT_TRUE(trace_has("error_cb(): Attestation Agent: generic error 3.\n"));
    EXPECT_EQ(at_agent_state.at_paused_stream.paused, 0);
    now.user_context = STREAM_PAUSED_MARK;
    flow_control_cb(CLIENT);
    EXPECT_EQ(now.sent.at(0).last, 1);
    EXPECT_THAT(now.sent[0].records, IsEmpty());
}

TEST_F(handlers, ConnectionsAreTracedWithBothEnds)
{
    connect_cb(CLIENT, nullptr, 0);
    disconnect_cb(CLIENT, 0);
    connect_cb(CLIENT, nullptr, 4);
    disconnect_cb(CLIENT, 4);
    EXPECT_THAT(
        trace_captured,
        ElementsAre("connect_cb(): Attestation Agent: Successful connection from client\n",
                    "connect_cb(): Attestation Agent: client connection from 192.0.2.1: 40000",
                    "connect_cb(): to 127.0.0.1: 50551\n",
                    "disconnect_cb(): Attestation Agent: client 192.0.2.1:40000 disconnected\n",
                    "connect_cb(): Attestation Agent: unsuccessful connection from client (status = 4)\n",
                    "disconnect_cb(): Attestation Agent: unsuccessful disconnection (status = 4)\n"));
    EXPECT_EQ(now.buffering, 0);
}
