// The readable dump of a log in the trace.
#include "agent/debug_trace.h"
#include "boot_log/event_log_format.h"
#include "boot_log/trace_dump.h"
#include "tests/boot_log/boot_log_fixture.h"
#include "tests/support/trace_capture.h"

namespace {

const std::string guid_text = "8be4df61-93ca-11d2-aa0d-00e098032b8c";

class event_log_dump_test : public boot_log_test {};

TEST_F(event_log_dump_test, TracesCryptoAgileRecords)
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

TEST_F(event_log_dump_test, TracesSha1OnlyRecords)
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
    const std::string zeros = "h:" + std::string(40, '0');
    const lines expected = {
        "1:\nEvent 1 (TPM 1.2 format)\n", "1:  PCRIndex: 0\n", "1:  EventType: 03 (No Action)\n",
        "1:  Dgst: ", zeros, "1:  EfiSpecIDEvent: Spec ID Event03\n", "1:    Platform Class: 0 (Client)\n",
        "1:    Spec Version: 2.0(0)\n", "1:    UINTN Size: 2 (UINT64)\n",
        "1:    5 Hash Algos: ", "1:0x0004 (", "1:SHA1", "1: (20 bytes)) ", "1:0x000b (", "1:SHA256",
        "1: (32 bytes)) ", "1:0x000c (", "1:SHA384", "1: (48 bytes)) ", "1:0x000d (", "1:SHA512",
        "1: (64 bytes)) ", "1:0x0104 (", "1:Unknown", "1: (7 bytes)) ", "1:\n    Vendor Info Size: 1", "h:FE",
        "1:\n",
        //
        "1:\nEvent 2 (TPM 1.2 format)\n", "1:  PCRIndex: 7\n",
        "1:  EventType: 80000002 (EFI Variable Boot)\n", "1:  Dgst: ", zeros, "1:  Guid: " + guid_text + "\n",
        "1:  Name: SecureBoot\n", "1:    VarDataLen: 1\n", "1:    VarData: ", "h:01", "1:\n",
        "1:    ASCII representation: ", "t:", "1:\n",
        //
        "1:\nEvent 3 (TPM 1.2 format)\n", "1:  PCRIndex: 7\n",
        "1:  EventType: 80000002 (EFI Variable Boot)\n", "1:  Dgst: ", zeros, "1:  Guid: " + guid_text + "\n",
        "1:  Name: SecureBoot\n", "1:    VarDataLen: 0\n", "1:    VarData: ", "h:", "1:\n",
        //
        "1:\nEvent 4 (TPM 1.2 format)\n", "1:  PCRIndex: 4\n", "1:  EventType: 80000007 (EFI Action)\n",
        "1:  Dgst: ", zeros, "1:  Action: ", "t:Exit", "1:\n",
        //
        "1:\nEvent 5 (TPM 1.2 format)\n", "1:  PCRIndex: 8\n", "1:  EventType: 0d (Grub2 IPL)\n",
        "1:  Dgst: ", zeros, "1:  EventSize: 1\n", "1:  Event: ", "h:67", "1:\n",
        //
        "1:\nEvent 6 (TPM 1.2 format)\n", "1:  PCRIndex: 1\n", "1:  EventType: 03 (No Action)\n",
        "1:  Dgst: ", zeros, "1:  EventSize: 1\n", "1:  Event: ", "h:6E", "1:\n",
        //
        "1:\nEvent 7 (TPM 1.2 format)\n", "1:  PCRIndex: 1\n", "1:  EventType: 05 (Unknown)\n",
        "1:  Dgst: ", zeros, "1:  EventSize: 0\n", "1:  Event: ", "h:", "1:\n"};
    EXPECT_EQ(record_lines(), traced(expected));
}

TEST_F(event_log_dump_test, DumpsNoMoreOfAVariableThanTheEventHolds)
{
    struct {
        std::string data;
        lines expected;
    } cases[] = {
        // A name is cut at 99 units, and forgotten at the next.
        {uefi_variable(std::string(150, 'n'), 150, "\2", 1),
         {"a:  Name: " + std::string(99, 'n') + "\n", "h:02"}},
        // The name runs into the data and past the end; lengths that would wrap.
        {secure_boot(11, 1), {"a:  Name: SecureBoot\n", "a:    VarDataLen: 1\n", "h:01"}},
        {secure_boot(UINT64_MAX, UINT64_MAX),
         {"a:  Name: SecureBoot\n", "a:    VarDataLen: 18446744073709551615\n", "h:01"}},
        {secure_boot(0x8000000000000000u, 0xFFFFFFFFu),
         {"a:  Name: SecureBoot\n", "a:    VarDataLen: 4294967295\n", "h:01"}},
        // Only the low 32 bits of the data length count for the dump.
        {secure_boot(10, 0x100000000u), {"a:  Name: SecureBoot\n", "a:    VarDataLen: 4294967296\n", "h:"}},
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

TEST_F(event_log_dump_test, DumpsASpecIdEventAsFarAsItReaches)
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

} // namespace
