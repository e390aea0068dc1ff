// The five relayed operations on a transport that the test scripts.
#include <cstring>
#include <functional>

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
    *response = nullptr;
    *response_len = static_cast<std::uint32_t>(now.response.size());
    if (now.call == 0) {
        *response = static_cast<std::uint8_t *>(std::malloc(now.response.size() + 1));
        if (*response == nullptr)
            return -1;
        std::memcpy(*response, now.response.data(), now.response.size());
    }
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

char node_text[] = "the BMC";

// A row as the test drives it: asks with a request whose encoding has so many bytes, and says what came of
// it: the status, the name in the record, whether the record is empty.
struct outcome {
    std::uint32_t status;
    std::string node;
    bool touched;
};
struct operation_case {
    const char *name;
    std::uint32_t number;
    std::size_t room;
    const char *start_line;
    std::string record; // encoded, with nothing but its node's name
    std::function<outcome(std::size_t)> ask;
};

template <class Request, class Record>
operation_case row(const char *name, std::uint32_t number, std::size_t room, const char *start_line,
                   std::uint32_t (*operation)(const Request *, Record *),
                   void (*fill)(Request &, std::string &))
{
    Record answer{};
    answer.node_name = node_text;
    answer.present = answer.has_node_name;
    auto ask = [operation, fill](std::size_t length) {
        Request request{};
        std::string filling(length < 3 ? 0 : length - (length < 130 ? 2 : 3), 'x'); // its tag and length
        if (!filling.empty())
            fill(request, filling);
        EXPECT_EQ(encoded(request).size(), length);
        Record record{};
        std::uint32_t status = operation(&request, &record);
        outcome got{status, record.node_name != nullptr ? record.node_name : "", record.present != 0};
        EXPECT_EQ(now.request, now.calls != 0 ? encoded(request) : "");
        message_release(record);
        return got;
    };
    return {name, number, room, start_line, encoded(answer), ask};
}

template <class Request>
void fill_name(Request &request, std::string &filling)
{
    request.node_name = filling.data();
    request.present = request.has_node_name;
}

template <class Request>
void fill_nonce(Request &request, std::string &filling)
{
    request.nonce = {reinterpret_cast<std::uint8_t *>(filling.data()), filling.size()};
    request.present = request.has_nonce;
}

const std::vector<operation_case> &rows()
{
    static const std::vector<operation_case> made = {
        row("attestation_get_bmc_sb_event_logs", 1, 262, "Starting BIV fetch with BMC...",
            attestation_get_bmc_sb_event_logs, fill_name),
        row("attestation_attest_pcrs_bmc", 2, 978, "Starting PCR fetch with BMC...",
            attestation_attest_pcrs_bmc, fill_nonce),
        row("attestation_get_bmc_ima_event_logs", 3, 284, "Starting IMA fetch with BMC...",
            attestation_get_bmc_ima_event_logs, fill_name),
        row("attestation_get_certchain_bmc", 4, 786, "Starting certificate fetch with BMC...",
            attestation_get_certchain_bmc, fill_nonce),
        row("get_platform_hw_integrity_bmc", 5, 530, "Starting HW integrity fetch with BMC...",
            get_platform_hw_integrity_bmc, fill_nonce),
    };
    return made;
}

void script_answer(const std::string &response)
{
    now = {};
    now.response = response;
    trace_captured.clear();
    setenv("ATTEST_NODE_NAME", "node1", 1);
}

TEST(bmc_operations, RelayWhatFitsAndDecodeTheRecord)
{
    for (const operation_case &one : rows()) {
        std::string name = std::string(one.name) + "(): ";
        for (std::size_t length : {std::size_t{0}, one.room}) {
            script_answer(one.record);
            outcome got = one.ask(length);
            EXPECT_EQ(got.status, ATTEST_OK) << name;
            EXPECT_EQ(got.node, "the BMC") << name;
            EXPECT_EQ(now.operation, one.number);
            EXPECT_EQ(now.node, "node1");
            EXPECT_THAT(trace_captured,
                        testing::ElementsAre(name + one.start_line, name + "Received response " +
                                                                        std::to_string(one.record.size())));
        }
        script_answer(one.record);
        EXPECT_EQ(one.ask(one.room + 1).status, ATTEST_ERR_NO_DATA) << name;
        EXPECT_EQ(now.calls, 0) << name;
    }
}

TEST(bmc_operations, FailWithoutARecord)
{
    for (const operation_case &one : rows()) {
        std::string failed = std::string(one.name) + "(): Failed to fetch data from BMC";
        const struct {
            int login, call;
            std::string response;
            bool traced;
        } failures[] = {
            {-2, 0, one.record, true},
            {0, -1, one.record, true},
            {0, 0, "", true},
            {0, 0, one.record.substr(1), false},
            {0, 0, one.record + one.record.substr(0, 3), false},
        };
        for (const auto &failure : failures) {
            script_answer(failure.response);
            now.login = failure.login;
            now.call = failure.call;
            outcome got = one.ask(0);
            EXPECT_EQ(got.status, ATTEST_ERR_NO_DATA) << one.name;
            EXPECT_FALSE(got.touched) << one.name;
            EXPECT_EQ(trace_has(failed), failure.traced) << one.name;
        }
        script_answer(one.record);
        setenv("ATTEST_NODE_NAME", "", 1);
        EXPECT_EQ(one.ask(0).status, ATTEST_ERR_NO_MEMORY);
        EXPECT_TRUE(trace_has(std::string(one.name) + "(): Failed to allocate node location"));
    }
}

TEST(bmc_operations, SurviveEachAllocationThatFails)
{
    const operation_case &one = rows()[0];
    const std::string name = std::string(one.name) + "(): ";
    std::uint32_t status = ~0u;
    for (std::size_t n = 0; status != ATTEST_OK && n < 100; ++n) {
        script_answer(one.record);
        NodeBootIntegrityLog record{};
        const get_platform_boot_integrity_event_logs_request request{};
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
}

} // namespace
