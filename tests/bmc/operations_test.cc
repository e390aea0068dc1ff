// The five relayed operations on a transport that the test scripts.
#include <cstring>

#include <gmock/gmock.h>

#include "agent/status.h"
#include "bmc/bmc_operations.h"
#include "bmc/rest_transport.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/trace_capture.h"

namespace {

// What the BMC answers, and what it was asked.
struct script {
    int login = 0;
    int call = 0;
    std::string response;
    std::uint32_t operation = 0;
    std::string node, request;
    int calls = 0;
} now;

} // namespace

int login_cert()
{
    return now.login;
}

int rest_operation(std::uint32_t op, const char *node_name, const std::uint8_t *request,
                   std::int32_t request_len, std::uint8_t **response, std::uint32_t *response_len)
{
    ++now.calls;
    now.operation = op;
    now.node = node_name;
    now.request.assign(reinterpret_cast<const char *>(request), static_cast<std::size_t>(request_len));
    // Also with a failure: what came before it is no reply.
    *response_len = static_cast<std::uint32_t>(now.response.size());
    *response = static_cast<std::uint8_t *>(std::calloc(1, now.response.size() + 1));
    if (*response == nullptr)
        return -1;
    std::memcpy(*response, now.response.data(), now.response.size());
    return now.call;
}

namespace {

template <class Message>
std::string encoded(const Message &message)
{
    std::string bytes(static_cast<std::size_t>(message_encoded_size(message)), '\0');
    message_encode(message, std::as_writable_bytes(std::span(bytes)));
    return bytes;
}

void script_answer(const std::string &response)
{
    now = {};
    now.response = response;
    trace_captured.clear();
    setenv("ATTEST_NODE_NAME", "node1", 1);
}

// A request whose encoding has so many bytes, all but its tag and length from `filling`.
template <class Request>
Request request_of(std::size_t length, std::string &filling)
{
    Request request{};
    if (length == 0)
        return request;
    filling.assign(length - (length < 130 ? 2 : 3), 'x');
    if constexpr (requires { request.nonce; }) {
        request.nonce = {reinterpret_cast<std::uint8_t *>(filling.data()), filling.size()};
        request.present = Request::has_nonce;
    } else {
        request.node_name = filling.data();
        request.present = Request::has_node_name;
    }
    EXPECT_EQ(encoded(request).size(), length);
    return request;
}

template <class Request, class Record>
void expect_relay(const char *name, std::uint32_t number, std::size_t room, const std::string &start_line,
                  std::uint32_t (*operation)(const Request *, Record *))
{
    char node_text[] = "the BMC";
    Record answer{};
    answer.node_name = node_text;
    answer.present = answer.has_node_name;
    const std::string good = encoded(answer);
    const auto received = [](const std::string &response) {
        return "Received response " + std::to_string(response.size());
    };
    const std::string failed = "Failed to fetch data from BMC";
    const std::string too_long = "Request of " + std::to_string(room + 1) + " bytes is not relayed";
    const std::string headless = good.substr(1);
    const std::string and_a_half = good + good.substr(0, 3);
    const struct {
        const char *what;
        std::size_t length;
        int login, call;
        std::string response, line;
    } cases[] = {
        {"an empty request", 0, 0, 0, good, received(good)},
        {"the longest request", room, 0, 0, good, received(good)},
        {"a longer one", room + 1, 0, 0, good, too_long},
        {"no login", 0, -2, 0, good, failed},
        {"no reply", 0, 0, -1, good, failed},
        {"an empty reply", 0, 0, 0, "", failed},
        {"a reply without its begin", 0, 0, 0, headless, received(headless)},
        {"a reply and a half", 0, 0, 0, and_a_half, received(and_a_half)},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(name + std::string(": ") + one.what);
        script_answer(one.response);
        now.login = one.login;
        now.call = one.call;
        std::string filling;
        const auto request = request_of<Request>(one.length, filling);
        Record record{};
        const std::uint32_t status = operation(&request, &record);
        const bool relayed = one.line == received(good);
        EXPECT_EQ(status, relayed ? ATTEST_OK : ATTEST_ERR_NO_DATA);
        EXPECT_EQ(record.present, relayed ? answer.present : 0);
        EXPECT_STREQ(record.node_name, relayed ? node_text : nullptr);
        EXPECT_THAT(trace_captured,
                    testing::ElementsAre(name + ("(): " + start_line), name + ("(): " + one.line)));
        EXPECT_EQ(now.calls, one.line == too_long || one.login != 0 ? 0 : 1);
        if (now.calls != 0) {
            EXPECT_EQ(now.operation, number);
            EXPECT_EQ(now.node, "node1");
            EXPECT_EQ(now.request, encoded(request));
        }
        message_release(record);
    }
}

TEST(bmc_operations, RelayWhatFitsAndDecodeTheRecord)
{
    expect_relay("attestation_get_bmc_sb_event_logs", 1, 262, "Starting BIV fetch with BMC...",
                 attestation_get_bmc_sb_event_logs);
    expect_relay("attestation_attest_pcrs_bmc", 2, 978, "Starting PCR fetch with BMC...",
                 attestation_attest_pcrs_bmc);
    expect_relay("attestation_get_bmc_ima_event_logs", 3, 284, "Starting IMA fetch with BMC...",
                 attestation_get_bmc_ima_event_logs);
    expect_relay("attestation_get_certchain_bmc", 4, 786, "Starting certificate fetch with BMC...",
                 attestation_get_certchain_bmc);
    expect_relay("get_platform_hw_integrity_bmc", 5, 530, "Starting HW integrity fetch with BMC...",
                 get_platform_hw_integrity_bmc);
}

TEST(bmc_operations, ARecordOfManyEmptyEventsIsNone)
{
    std::string events;
    for (std::uint64_t i = 0; i <= (256u << 20) / sizeof(IMA_EVENT); ++i)
        events += std::string("\x12\0", 2); // two bytes each, and an event's size in memory
    script_answer(events);
    const get_platform_ima_event_logs_request request{};
    NodeIMAData record{};
    EXPECT_EQ(attestation_get_bmc_ima_event_logs(&request, &record), ATTEST_ERR_NO_DATA);
    message_release(record);
}

TEST(bmc_operations, SurviveEachAllocationThatFails)
{
    const std::string name = "attestation_get_bmc_sb_event_logs(): ";
    const get_platform_boot_integrity_event_logs_request request{};
    std::uint32_t status = ~0u;
    for (std::size_t n = 0; status != ATTEST_OK && n < 100; ++n) {
        script_answer("\x0a\x01n"); // a record with nothing but its node's name
        NodeBootIntegrityLog record{};
        {
            allocation_faults faults(n);
            status = attestation_get_bmc_sb_event_logs(&request, &record);
            EXPECT_EQ(allocation_faults::live(), status == ATTEST_OK ? 1u : 0u) << n;
        }
        EXPECT_EQ(record.present != 0, status == ATTEST_OK) << n;
        EXPECT_EQ(trace_has(name + "Failed to allocate request msg"), n == 0);
        EXPECT_EQ(status == ATTEST_ERR_NO_MEMORY, n < 2) << n;
        message_release(record);
    }
    EXPECT_EQ(status, ATTEST_OK);

    setenv("ATTEST_NODE_NAME", "", 1);
    NodeBootIntegrityLog record{};
    EXPECT_EQ(attestation_get_bmc_sb_event_logs(&request, &record), ATTEST_ERR_NO_MEMORY);
    EXPECT_TRUE(trace_has(name + "Failed to allocate node location"));
}

} // namespace
