#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "boot_log/event_log_dump.h"
#include "boot_log/event_log_framing.h"
#include "boot_log/trace_dump.h"
#include "tests/boot_log/boot_log_fixture.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/trace_capture.h"

namespace {

using lines = std::vector<std::string>;

const std::string sha1(20, '\x11');
const std::string sha256(32, '\x22');
const std::string no_sha1(20, '\0');
const digest_list both = {{0x0004, sha1}, {0x000B, sha256}};

std::string secure_boot(std::uint64_t name_length = 10, std::uint64_t data_length = 1)
{
    return uefi_variable("SecureBoot", name_length, "\1", data_length);
}

// One record of every kind of event data, both layouts.
lines small_log_records()
{
    return {sha1_record(0, EV_NO_ACTION, no_sha1, spec_id_data({{0x04, 20}, {0x0B, 32}}, "V")),
            agile_record(7, EV_EFI_VARIABLE_DRIVER_CONFIG, both, secure_boot()),
            agile_record(4, EV_EFI_ACTION, {{0x000B, sha256}}, "Exit"),
            sha1_record(0, EV_EFI_VARIABLE_BOOT, no_sha1, secure_boot()),
            agile_record(5, 0x80000006, {{0x0012, ""}, {0x0004, sha1}}, "")};
}

std::string joined(const lines &records)
{
    std::string all;
    for (const std::string &record : records)
        all += record;
    return all;
}

// `expected` with the prefix of the reader's two layouts: "a:" crypto-agile, "1:" SHA-1-only, "h:" and "t:"
// dumps.
lines traced(const lines &expected)
{
    lines all;
    for (const std::string &line : expected) {
        const char *name = line[0] == 'a'   ? "attestation_get_local_sb_event_logs(): "
                           : line[0] == '1' ? "populate_tpm_12_eventlog(): "
                           : line[0] == 'h' ? "print_hexstring(): \n "
                                            : "print_asciistring(): \n ";
        all.push_back(name + line.substr(2));
    }
    return all;
}

const std::string sha1_text(40, '1');
const std::string sha256_text(64, '2');
const std::string guid_text = "8be4df61-93ca-11d2-aa0d-00e098032b8c";

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
    temporary_file huge("");
    ASSERT_EQ(truncate(huge.path(), 1 << 30), 0);
    for (const char *path : {"/nowhere/log", static_cast<const char *>(huge.path())}) {
        sb_log_name = path;
        NodeBootIntegrityLog untouched;
        std::memset(&untouched, 0x5A, sizeof untouched);
        EXPECT_EQ(attestation_get_local_sb_event_logs(&untouched), ATTEST_ERR_BOOT_LOG_READ);
        const auto *bytes = reinterpret_cast<const char *>(&untouched);
        EXPECT_TRUE(std::all_of(bytes, bytes + sizeof untouched, [](char byte) { return byte == 0x5A; }));
    }
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

TEST_F(event_log_test, TracesCryptoAgileRecords)
{
    ascii = 1;
    digest_list wide = {{0x000C, std::string(48, '\x33')}, {0x000D, std::string(64, '\x44')}, {0x0112, ""}};
    ASSERT_EQ(read(agile_record(7, EV_EFI_VARIABLE_AUTHORITY, both, secure_boot()) +
                   agile_record(4, EV_EFI_ACTION, wide, "Ex\1it") +
                   agile_record(8, EV_IPL, {{0x0104, sha1}}, "grub") +
                   agile_record(0, EV_NO_ACTION, {{0x0004, sha1}}, "\xAB") +
                   agile_record(5, 0x80000006, {{0x0004, sha1}}, "")),
              ATTEST_OK);
    lines expected = {
        "a:\nEvent 1\n", "a:\n  Logfile position 0x00000000\n", "a:  PCRIndex: 7\n",
        "a:  EventType: 800000e0 (EFI Variable Authority)\n", "a:  SHA1", "a: Dgst: ", "h:" + sha1_text,
        "a:  SHA256", "a: Dgst: ", "h:" + sha256_text, "a:  Guid: " + guid_text + "\n",
        "a:  Name: SecureBoot\n", "a:    VarDataLen: 1\n", "a:    VarData: ", "h:01", "a:\n",
        "a:    ASCII representation: ", "t:", "a:\n", "a:  Event Size: 53\n",
        //
        "a:\nEvent 2\n", "a:\n  Logfile position 0x0000007d\n", "a:  PCRIndex: 4\n",
        "a:  EventType: 80000007 (EFI Action)\n", "a:  SHA384", "a: Dgst: ", "h:" + std::string(96, '3'),
        "a:  SHA512", "a: Dgst: ", "h:" + std::string(128, '4'), "a:  Unknown (0x0012)",
        "a: Dgst: ", "h:", "a:  Action: ", "t:Exit", "a:\n", "a:  Event Size: 5\n",
        //
        "a:\nEvent 3\n", "a:\n  Logfile position 0x00000108\n", "a:  PCRIndex: 8\n",
        "a:  EventType: 0d (Grub2 IPL)\n", "a:  SHA1", "a: Dgst: ", "h:" + sha1_text,
        "a:  Description: ", "t:grub", "a:\n", "a:  Event Size: 4\n",
        //
        "a:\nEvent 4\n", "a:\n  Logfile position 0x00000132\n", "a:  PCRIndex: 0\n",
        "a:  EventType: 03 (No Action)\n", "a:  SHA1", "a: Dgst: ", "h:" + sha1_text, "a:  EventSize: 1\n",
        "a:  Event: ", "h:AB", "a:\n", "a:  Event Size: 1\n",
        //
        "a:\nEvent 5\n", "a:\n  Logfile position 0x00000159\n", "a:  PCRIndex: 5\n",
        "a:  EventType: 80000006 (EFI GPT Event)\n", "a:  SHA1", "a: Dgst: ", "h:" + sha1_text,
        "a:  EventSize: 0\n", "a:  Event: ", "h:", "a:\n", "a:  Event Size: 0\n"};
    EXPECT_EQ(record_lines(), traced(expected));
}

TEST_F(event_log_test, TracesSha1OnlyRecords)
{
    ascii = 1;
    ASSERT_EQ(read(sha1_record(
                       0, EV_NO_ACTION, no_sha1,
                       spec_id_data({{0x04, 20}, {0x0B, 32}, {0x0C, 48}, {0x0D, 64}, {0x0104, 7}}, "\xFE")) +
                   sha1_record(7, EV_EFI_VARIABLE_BOOT, no_sha1, secure_boot()) +
                   sha1_record(7, EV_EFI_VARIABLE_BOOT, no_sha1, secure_boot(10, 0)) +
                   sha1_record(4, EV_EFI_ACTION, no_sha1, "Exit") + sha1_record(8, EV_IPL, no_sha1, "g") +
                   sha1_record(1, EV_NO_ACTION, no_sha1, "n") + sha1_record(1, 5, no_sha1, "")),
              ATTEST_OK);
    auto head = [](int number, int pcr, const std::string &type) {
        return lines{"1:\nEvent " + std::to_string(number) + " (TPM 1.2 format)\n",
                     "1:  PCRIndex: " + std::to_string(pcr) + "\n", "1:  EventType: " + type + "\n",
                     "1:  Dgst: ", "h:" + std::string(40, '0')};
    };
    lines expected;
    auto expect = [&](const lines &first, const lines &rest) {
        expected.insert(expected.end(), first.begin(), first.end());
        expected.insert(expected.end(), rest.begin(), rest.end());
    };
    expect(head(1, 0, "03 (No Action)"), {"1:  EfiSpecIDEvent: Spec ID Event03\n",
                                          "1:    Platform Class: 0 (Client)\n",
                                          "1:    Spec Version: 2.0(0)\n",
                                          "1:    UINTN Size: 2 (UINT64)\n",
                                          "1:    5 Hash Algos: ",
                                          "1:0x0004 (",
                                          "1:SHA1",
                                          "1: (20 bytes)) ",
                                          "1:0x000b (",
                                          "1:SHA256",
                                          "1: (32 bytes)) ",
                                          "1:0x000c (",
                                          "1:SHA384",
                                          "1: (48 bytes)) ",
                                          "1:0x000d (",
                                          "1:SHA512",
                                          "1: (64 bytes)) ",
                                          "1:0x0104 (",
                                          "1:Unknown",
                                          "1: (7 bytes)) ",
                                          "1:\n    Vendor Info Size: 1",
                                          "h:FE",
                                          "1:\n"});
    lines variable = {"1:  Guid: " + guid_text + "\n", "1:  Name: SecureBoot\n"};
    expect(head(2, 7, "80000002 (EFI Variable Boot)"), variable);
    expect({"1:    VarDataLen: 1\n", "1:    VarData: ", "h:01", "1:\n"},
           {"1:    ASCII representation: ", "t:", "1:\n"});
    expect(head(3, 7, "80000002 (EFI Variable Boot)"), variable);
    expect({"1:    VarDataLen: 0\n", "1:    VarData: ", "h:", "1:\n"}, {});
    expect(head(4, 4, "80000007 (EFI Action)"), {"1:  Action: ", "t:Exit", "1:\n"});
    expect(head(5, 8, "0d (Grub2 IPL)"), {"1:  EventSize: 1\n", "1:  Event: ", "h:67", "1:\n"});
    expect(head(6, 1, "03 (No Action)"), {"1:  EventSize: 1\n", "1:  Event: ", "h:6E", "1:\n"});
    expect(head(7, 1, "05 (Unknown)"), {"1:  EventSize: 0\n", "1:  Event: ", "h:", "1:\n"});
    EXPECT_EQ(record_lines(), traced(expected));
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

// Reads a log from memory that ends where the log ends, so that the sanitizer sees what is read beyond it.
void frame_and_dump(const std::string &log)
{
    auto exact = std::make_unique<std::byte[]>(log.size());
    std::memcpy(exact.get(), log.data(), log.size());
    boot_log_framing framing;
    boot_log_misfit misfit = {};
    boot_record record = {};
    std::span<const std::byte> bytes(exact.get(), log.size());
    byte_cursor records(bytes);
    if (!find_boot_log_framing(bytes, framing, misfit))
        return;
    while (!records.at_end() && next_boot_record(records, framing, record, misfit))
        dump_event_data("dump", record);
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

TEST_F(event_log_test, DumpsNoMoreOfAVariableThanTheEventHolds)
{
    struct {
        std::string data;
        lines expected;
    } cases[] = {
        // The name runs into the data and past the end; lengths that would wrap.
        {secure_boot(11, 1), {"a:  Name: SecureBoot\n", "a:    VarDataLen: 1\n", "h:01"}},
        {secure_boot(UINT64_MAX, UINT64_MAX),
         {"a:  Name: SecureBoot\n", "a:    VarDataLen: 18446744073709551615\n", "h:01"}},
        {secure_boot(0x8000000000000000u, 0xFFFFFFFFu),
         {"a:  Name: SecureBoot\n", "a:    VarDataLen: 4294967295\n", "h:01"}},
        // Only the low 32 bits of the data length count for the dump.
        {secure_boot(10, 0x100000000u), {"a:  Name: SecureBoot\n", "a:    VarDataLen: 4294967296\n", "h:"}},
        {uefi_variable(std::string(150, 'n'), 150, "\2", 1),
         {"a:  Name: " + std::string(99, 'n') + "\n", "h:02"}},
        // Not even the fixed fields.
        {secure_boot().substr(0, 15), {"a:  EventSize: 15\n"}},
        {secure_boot().substr(0, 23), {"a:  EventSize: 23\n"}},
        {secure_boot().substr(0, 31), {"a:  EventSize: 31\n", "a:  Event: "}}};
    for (const auto &item : cases) {
        std::string record = agile_record(7, EV_EFI_VARIABLE_BOOT, both, item.data);
        frame_and_dump(record);
        ASSERT_EQ(read(record), ATTEST_OK);
        for (const std::string &line : traced(item.expected))
            EXPECT_TRUE(trace_has(line)) << line;
    }
}

TEST_F(event_log_test, DumpsASpecIdEventAsFarAsItReaches)
{
    // The lines of the data grow with it: one for each field that it holds, and the closing one.
    const std::string data = spec_id_data({{0x04, 20}, {0x0B, 32}}, "vendor");
    const std::pair<std::size_t, std::size_t> cases[] = {{0, 0},  {15, 0}, {16, 1},  {20, 2},  {21, 2},
                                                         {22, 2}, {23, 3}, {24, 4},  {27, 4},  {28, 5},
                                                         {31, 5}, {32, 8}, {36, 11}, {37, 13}, {43, 13}};
    for (const auto &[length, count] : cases) {
        std::string record = sha1_record(0, EV_NO_ACTION, no_sha1, data.substr(0, length));
        frame_and_dump(record);
        ASSERT_EQ(read(record), ATTEST_OK);
        EXPECT_EQ(record_lines().size(), 5 + count + 1) << length;
    }
    ASSERT_EQ(read(sha1_record(0, EV_NO_ACTION, no_sha1, data.substr(0, 39))), ATTEST_OK);
    EXPECT_TRUE(trace_has(traced({"h:7665"})[0]));
    // A signature without its NUL.
    ASSERT_EQ(read(sha1_record(0, EV_NO_ACTION, no_sha1, std::string(20, 'S'))), ATTEST_OK);
    EXPECT_TRUE(trace_has(traced({"1:  EfiSpecIDEvent:" + std::string(16, 'S') + "\n"})[0]));
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
