#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "boot_log/event_log_format.h"
#include "boot_log/trace_dump.h"
#include "tests/boot_log/boot_log_fixture.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/trace_capture.h"

namespace {

class event_log_test : public boot_log_test {};

TEST_F(event_log_test, StampsAnEmptyLogWithoutEvents)
{
    ASSERT_EQ(read(""), ATTEST_OK);
    EXPECT_EQ(log->present, NodeBootIntegrityLog::has_node_name | NodeBootIntegrityLog::has_uptime);
    EXPECT_STREQ(log->node_name, "node0");
    EXPECT_GT(log->uptime, 0u);
}

TEST_F(event_log_test, LeavesTheMessageUntouchedWithoutAFile)
{
    sb_log_name = "/nowhere/log";
    NodeBootIntegrityLog untouched;
    std::memset(&untouched, 0x5A, sizeof untouched);
    EXPECT_EQ(attestation_get_local_sb_event_logs(&untouched), ATTEST_ERR_BOOT_LOG_READ);
    const auto *bytes = reinterpret_cast<const char *>(&untouched);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof untouched, [](char byte) { return byte == 0x5A; }));
}

TEST_F(event_log_test, FailsWithoutANodeName)
{
    setenv("ATTEST_NODE_NAME", "", 1);
    EXPECT_EQ(read(joined(small_log_records())), ATTEST_ERR_NO_MEMORY);
    EXPECT_TRUE(is_empty());
    EXPECT_EQ(trace_captured.back(), traced({"a:Failed to allocate node location"})[0]);
}

TEST_F(event_log_test, FillsTheMessageInFileOrder)
{
    ASSERT_EQ(read(joined(small_log_records())), ATTEST_OK);
    EXPECT_EQ(log->present, NodeBootIntegrityLog::has_node_name | NodeBootIntegrityLog::has_events |
                                NodeBootIntegrityLog::has_uptime);
    std::string spec_id = hex(spec_id_data({{0x04, 20}, {0x0B, 32}}, "V"));
    EXPECT_EQ(events(),
              (lines{"1 3 0 [0:" + std::string(40, '0') + "] 38:" + spec_id,
                     "2 80000001 7 [0:" + sha1_text + " 1:" + sha256_text + "] 53:" + hex(secure_boot()),
                     "3 80000007 4 [1:" + sha256_text + "] 4:45786974",
                     "4 80000002 0 [0:" + std::string(40, '0') + "] 53:" + hex(secure_boot()),
                     "5 80000006 5 [0: 0:" + sha1_text + "] 0:"}));
}

TEST_F(event_log_test, KeepsEventsWhenTheArrayGrows)
{
    std::string many;
    for (std::uint32_t i = 1; i <= 201; ++i)
        many += agile_record(i, 4, {{0x0004, sha1}}, "");
    ASSERT_EQ(read(many), ATTEST_OK);
    ASSERT_EQ(log->events.count, 201u);
    for (std::uint32_t i = 1; i <= 201; ++i)
        EXPECT_EQ(event(i - 1), std::to_string(i) + " 4 " + std::to_string(i) + " [0:" + sha1_text + "] 0:");
}

TEST_F(event_log_test, FramesUnknownDigestsByTheLogsOwnList)
{
    std::string sm3(32, '\x55');
    std::string spec_id = sha1_record(0, EV_NO_ACTION, no_sha1, spec_id_data({{0x04, 20}, {0x12, 32}}, ""));
    std::string record = agile_record(7, 4, {{0x0012, sm3}, {0x0004, sha1}}, "data");
    ASSERT_EQ(read(spec_id + record), ATTEST_OK);
    EXPECT_EQ(events().back(), "2 4 7 [0:" + std::string(64, '5') + " 0:" + sha1_text + "] 4:64617461");
    EXPECT_TRUE(trace_has(traced({"a:  Unknown (0x0012)"})[0]));
    // Without the list nobody knows how long it is, and other events have none.
    EXPECT_EQ(read(record), ATTEST_ERR_BOOT_LOG_READ);
    for (std::size_t field : {0, 4}) { // PCR, type
        std::string other = spec_id;
        other[field] = 1;
        EXPECT_EQ(read(other + record), ATTEST_ERR_BOOT_LOG_READ);
    }
    // Cut before the list's count, in it, and behind it.
    for (std::size_t length : {23, 26, 28}) {
        std::string cut = spec_id_data({{0x12, 32}}, "").substr(0, length);
        EXPECT_EQ(read(sha1_record(0, EV_NO_ACTION, no_sha1, cut) + record), ATTEST_ERR_BOOT_LOG_READ);
    }
}

TEST_F(event_log_test, FramesALogOfATpm12)
{
    ASSERT_EQ(read(sha1_record(0, 8, sha1, "version") + sha1_record(7, 4, sha1, "end")), ATTEST_OK);
    EXPECT_EQ(events(), (lines{"1 8 0 [0:" + sha1_text + "] 7:76657273696f6e",
                               "2 4 7 [0:" + sha1_text + "] 3:656e64"}));
    EXPECT_TRUE(trace_has(traced({"1:\nEvent 2 (TPM 1.2 format)\n"})[0]));
}

TEST_F(event_log_test, RefusesALogCutAnywhereButBetweenRecords)
{
    lines records = small_log_records();
    std::string whole = joined(records);
    std::vector<std::size_t> boundaries = {0};
    for (const std::string &record : records)
        boundaries.push_back(boundaries.back() + record.size());
    for (std::size_t length = 0; length < whole.size(); ++length) {
        allocation_faults account;
        bool at_boundary = std::find(boundaries.begin(), boundaries.end(), length) != boundaries.end();
        ASSERT_EQ(read(whole.substr(0, length)), at_boundary ? ATTEST_OK : ATTEST_ERR_BOOT_LOG_READ)
            << length;
        if (!at_boundary) {
            EXPECT_TRUE(is_empty());
            EXPECT_EQ(record_lines().size(), 1u);
        }
        message_release(*log);
        EXPECT_EQ(allocation_faults::live(), 0u);
    }
}

TEST_F(event_log_test, SaysWhichFieldDoesNotFitWhere)
{
    // Offsets of the second record's fields behind its beginning; each cut is one byte short of the field's
    // end.
    std::string first = sha1_record(0, 4, no_sha1, "");
    std::string agile = agile_record(7, 4, both, "data");
    std::string plain = sha1_record(7, 4, no_sha1, "data");
    struct {
        const std::string &second;
        std::size_t cut;
        const char *field;
        const char *offset;
    } cases[] = {{agile, 3, "PCR index", "20"},     {agile, 7, "event type", "24"},
                 {agile, 11, "digest count", "28"}, {agile, 13, "digest identifier", "2c"},
                 {agile, 33, "digest", "2e"},       {agile, 35, "digest identifier", "42"},
                 {agile, 67, "digest", "44"},       {agile, 71, "event size", "64"},
                 {agile, 75, "event data", "68"},   {plain, 27, "SHA-1 digest", "28"},
                 {plain, 31, "event size", "3c"},   {plain, 35, "event data", "40"}};
    for (const auto &item : cases) {
        ASSERT_EQ(read(first + item.second.substr(0, item.cut)), ATTEST_ERR_BOOT_LOG_READ);
        EXPECT_EQ(record_lines(),
                  traced({"a:Boot event log of " + std::to_string(32 + item.cut) + " bytes: the " +
                          item.field + " at offset 0x000000" + item.offset + " does not fit"}));
    }
}

TEST_F(event_log_test, SurvivesAnyLengthChanged)
{
    ascii = 1;
    const std::string whole = joined(small_log_records());
    for (std::size_t i = 0; i < whole.size(); ++i) {
        for (const char *value :
             {"\x01", "\x80", "\xFF\xFF\xFF\x7F", "\xFF\xFF\xFF\xFF", "\xE0\xFF\xFF\xFF"}) {
            std::string changed = whole;
            changed.replace(i, std::strlen(value), value).resize(whole.size());
            frame_and_dump(changed);
        }
        std::string changed = whole;
        changed[i] = static_cast<char>(~changed[i]);
        std::uint32_t status = read(changed);
        ASSERT_TRUE(status == ATTEST_OK || (status == ATTEST_ERR_BOOT_LOG_READ && is_empty())) << i;
    }
}

// The allocations of a log of one record of each layout, in order, and what each one's failure leads to. The
// dumps allocate nothing here.
TEST_F(event_log_test, LosesNoMoreThanTheAllocationThatFailed)
{
    verbose = 0;
    temporary_file file(sha1_record(0, 8, no_sha1, "one") + agile_record(7, 4, {{0x0004, sha1}}, "two"));
    const std::string path = file.path();
    const std::string zeros(40, '0');
    const std::string one = "1 8 0 [0:" + zeros + "] 3:6f6e65";
    const std::string two = "2 4 7 [0:" + sha1_text + "] 3:74776f";
    const std::string two_alone = "1 4 7 [0:" + sha1_text + "] 3:74776f";
    struct {
        std::uint32_t status;
        lines events;
        std::string line;
    } cases[] = {
        {ATTEST_ERR_BOOT_LOG_READ, {}, "read_file(): Could not allocate 1024 bytes to read " + path + "\n"},
        {ATTEST_ERR_BOOT_LOG_READ, {}, "read_file(): Could not allocate 2048 bytes to read " + path + "\n"},
        {ATTEST_ERR_NO_MEMORY, {}, traced({"a:Failed to allocate node location"})[0]},
        {ATTEST_ERR_NO_MEMORY, {}, traced({"a:Failed to allocate event log"})[0]},
        {ATTEST_OK, {two_alone}, traced({"1: Unable to allocate digest list "})[0]},
        {ATTEST_OK, {"1 8 0 [0:-] 3:6f6e65", two}, ""},
        {ATTEST_OK, {two_alone}, ""},
        {ATTEST_ERR_NO_MEMORY, {}, traced({"a: Unable to allocate digest list "})[0]},
        {ATTEST_OK, {one, "2 4 7 [0:-] 3:74776f"}, ""},
        {ATTEST_OK, {one, "2 4 7 [0:" + sha1_text + "] -:-"}, ""},
        {ATTEST_OK, {one, two}, ""},
    };
    for (std::size_t n = 0; n < std::size(cases); ++n) {
        allocation_faults faults(n);
        EXPECT_EQ(read_path(file.path()), cases[n].status) << n;
        EXPECT_EQ(events(), cases[n].events) << n;
        EXPECT_TRUE(cases[n].line.empty() || trace_has(cases[n].line)) << n;
        EXPECT_TRUE(cases[n].status == ATTEST_OK || is_empty()) << n;
        message_release(*log);
        EXPECT_EQ(allocation_faults::live(), 0u) << n;
    }
    EXPECT_FALSE(trace_has_part("Unable"));
}

TEST_F(event_log_test, KeepsAnEmptyListWhenEveryEventIsDropped)
{
    verbose = 0;
    temporary_file file(sha1_record(0, 8, no_sha1, "one"));
    allocation_faults faults(4, true);
    ASSERT_EQ(read_path(file.path()), ATTEST_OK);
    EXPECT_TRUE(log->present & NodeBootIntegrityLog::has_events);
    EXPECT_EQ(log->events.count, 0u);
    message_release(*log);
    EXPECT_EQ(allocation_faults::live(), 0u);
}

TEST_F(event_log_test, LeaksNothingWhereverMemoryEnds)
{
    std::string many = joined(small_log_records());
    for (int i = 0; i < 250; ++i)
        many += agile_record(7, 4, both, "data");
    temporary_file file(many);
    std::size_t needed = 0;
    {
        allocation_faults count;
        ASSERT_EQ(read_path(file.path()), ATTEST_OK);
        needed = allocation_faults::asked();
        message_release(*log);
    }
    for (std::size_t n = 0; n < needed; n += n < 40 ? 1 : 17) {
        allocation_faults faults(n, true);
        EXPECT_EQ(read_path(file.path()) == ATTEST_OK, !is_empty());
        message_release(*log);
        EXPECT_EQ(allocation_faults::live(), 0u) << n;
    }
}

TEST_F(event_log_test, RendersNothingWhileTheFlagIsOff)
{
    trace_capture_switch_off(true);
    temporary_file file(joined(small_log_records()));
    allocation_faults account;
    ASSERT_EQ(read_path(file.path()), ATTEST_OK);
    // The file twice, the name, the array; digest list, digests and data of the events, where there are
    // bytes.
    EXPECT_EQ(allocation_faults::asked(), 4u + 3 + 4 + 3 + 3 + 2);
}

} // namespace
