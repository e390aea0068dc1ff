// The data of boot events, decoded and rendered: what is shown for good data, and that no damaged data reads
// past its end or gets a byte through that steers a terminal.
#include <algorithm>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "attestctl/event_data.h"
#include "attestctl/event_types.h"
#include "attestctl/text.h"
#include "attestctl/uefi.h"

using namespace std::string_literals;
using namespace std::string_view_literals;

namespace {

// Little-endian integers and UTF-16 text one after the other.
std::string le(std::uint64_t value, int size)
{
    std::string out;
    for (int i = 0; i < size; ++i)
        out += static_cast<char>(value >> (8 * i));
    return out;
}

std::string wide(std::string_view ascii)
{
    std::string out;
    for (const char c : ascii)
        out += {c, '\0'};
    return out;
}

std::string bytes(std::string_view text)
{
    std::string out;
    EXPECT_TRUE(from_hex(text, out)) << text;
    return out;
}

std::string node(int type, int subtype, const std::string &data)
{
    return le(type, 1) + le(subtype, 1) + le(4 + data.size(), 2) + data;
}

std::string variable(const std::string &guid, std::string_view name, const std::string &data)
{
    return guid + le(name.size(), 8) + le(data.size(), 8) + wide(name) + data;
}

const std::string END = bytes("7fff0400");
const std::string GLOBAL = bytes("61dfe48bca93d211aa0d00e098032b8c");
const std::string ESP = bytes("28732ac11ff8d211ba4b00a0c93ec93b");
const std::string ID = bytes("0403020106050807090a0b0c0d0e0f10");

const std::string DISK_PATH = node(2, 1, le(0x0a0341d0, 4) + le(0, 4)) + node(1, 1, bytes("021f")) +
                              node(3, 18, le(1, 2) + le(0xffff, 2) + le(0, 2)) +
                              node(4, 1, le(1, 4) + le(2048, 8) + le(4096, 8) + ID + bytes("0202")) +
                              node(4, 4, wide("\\EFI\\BOOT\\BOOTX64.EFI"s + '\0')) + END;
const std::string DISK_TEXT =
    "PciRoot(0x0)/Pci(0x1f,0x2)/Sata(0x1,0xffff,0x0)/"
    "HD(1,GPT,01020304-0506-0708-090a-0b0c0d0e0f10,0x800,0x1000)/File(\\EFI\\BOOT\\BOOTX64.EFI)";

const std::string GPT = "EFI PART"s + std::string(32, 'x') + le(34, 8) + le(2014, 8) + ID + le(2, 8) +
                        le(128, 4) + le(128, 4) + le(0, 4) + le(1, 8) + ESP + ID + le(40, 8) + le(99, 8) +
                        le(0, 8) + wide("boot") + std::string(64, '\0');

const std::string ID_TEXT = "01020304-0506-0708-090a-0b0c0d0e0f10";
const std::string GLOBAL_TEXT = "8be4df61-93ca-11d2-aa0d-00e098032b8c (EFI global variable)";

struct event_case {
    const char *what;
    std::uint32_t type;
    std::string data;
    std::string shown; // lines
};

std::vector<event_case> event_cases()
{
    using namespace event_type;
    return {
        {"specification identifier", NO_ACTION,
         "Spec ID Event03\0"s + le(0, 4) + bytes("00020202") + le(2, 4) + bytes("040014000b00200000"),
         "Spec ID Event03, client platform, version 2.0 errata 2, UINTN 64 bits\n"
         "digests: SHA-1 (20 bytes), SHA-256 (32 bytes)\n"},
        {"specification identifier of other algorithms", NO_ACTION,
         "Spec ID Event03\0"s + le(1, 4) + bytes("00020001") + le(4, 4) +
             bytes("0c0030000d0040001200200027002000"),
         "Spec ID Event03, server platform, version 2.0 errata 0, UINTN 32 bits\n"
         "digests: SHA-384 (48 bytes), SHA-512 (64 bytes), SM3-256 (32 bytes), 0x0027 (32 bytes)\n"},
        {"specification identifier of a TPM 1.2", NO_ACTION,
         "Spec ID Event00\0"s + le(0, 4) + bytes("02010001"),
         "Spec ID Event00, client platform, version 1.2 errata 0, UINTN 32 bits\n"},
        {"no action of somebody else", NO_ACTION, "Somebody else's\0"s, "\"Somebody else's\"\n"},
        {"startup locality", NO_ACTION, "StartupLocality\0\3"s, "startup locality 3\n"},
        {"separator", SEPARATOR, le(0, 4), "end of the pre-boot measurements (0x00000000)\n"},
        {"separator of ones", SEPARATOR, le(0xffffffff, 4),
         "end of the pre-boot measurements (0xffffffff)\n"},
        {"error separator", SEPARATOR, le(1, 4), "error (0x00000001)\n"},
        {"action", 0x80000007, "Exit Boot Services", "\"Exit Boot Services\"\n"},
        {"command line", 0x0000000d, "kernel_cmdline: /vmlinuz quiet\0"s,
         "\"kernel_cmdline: /vmlinuz quiet\"\n"},
        {"wide command line", 0x0000000d, wide("quiet\0"s), "\"quiet\"\n"},
        {"tag", EVENT_TAG, bytes("ec223b8f0d000000") + "Linux initrd\0"s,
         "tag 0x8f3b22ec: \"Linux initrd\"\n"},
        {"version", S_CRTM_VERSION, wide("1.4\0"s), "\"1.4\"\n"},
        {"version of a GUID's size", S_CRTM_VERSION, wide("1.00.00\0"s), "\"1.00.00\"\n"},
        {"version by a GUID", S_CRTM_VERSION, ID, ID_TEXT + "\n"},
        {"blob that is a text", POST_CODE, "ACPI DATA", "\"ACPI DATA\"\n"},
        {"blob", EFI_PLATFORM_FIRMWARE_BLOB, le(0x820000, 8) + le(1048576, 8),
         "at 0x820000, 1,048,576 bytes\n"},
        {"described blob", EFI_PLATFORM_FIRMWARE_BLOB2, "\4DXE1"s + le(16, 8) + le(1, 8),
         "\"DXE1\" at 0x10, 1 byte\n"},
        {"handoff tables", EFI_HANDOFF_TABLES,
         le(1, 8) + bytes("312d9deb882dd3119a160090273fc14d") + le(4096, 8),
         "table eb9d2d31-2d88-11d3-9a16-0090273fc14d (SMBIOS table) at 0x1000\n"},
        {"described handoff tables", EFI_HANDOFF_TABLES2, "\4UEFI"s + le(0, 8), "\"UEFI\"\nno tables\n"},
        {"variable without data", EFI_VARIABLE_DRIVER_CONFIG, variable(GLOBAL, "PK", ""),
         "variable PK, " + GLOBAL_TEXT + ", 0 bytes\n"},
        {"state variable", EFI_VARIABLE_DRIVER_CONFIG, variable(GLOBAL, "SecureBoot", "\1"),
         "variable SecureBoot, " + GLOBAL_TEXT + ", 1 byte\non (1)\n"},
        {"boot order", EFI_VARIABLE_BOOT, variable(GLOBAL, "BootOrder", le(1, 2) + le(0xa, 2)),
         "variable BootOrder, " + GLOBAL_TEXT + ", 4 bytes\nBoot0001, Boot000A\n"},
        {"load option", EFI_VARIABLE_BOOT,
         variable(GLOBAL, "Boot0001",
                  le(1, 4) + le(DISK_PATH.size(), 2) + wide("Debian\0"s) + DISK_PATH + wide("quiet")),
         "variable Boot0001, " + GLOBAL_TEXT + ", 152 bytes\n\"Debian\" " + DISK_TEXT + " with \"quiet\"\n"},
        {"signature lists", EFI_VARIABLE_DRIVER_CONFIG,
         variable(GLOBAL, "db",
                  bytes("2616c4c14c509240aca941f936934328") + le(28 + 96, 4) + le(0, 4) + le(48, 4) +
                      std::string(96, 'h')),
         "variable db, " + GLOBAL_TEXT +
             ", 124 bytes\n2 x c1c41626-504c-4092-aca9-41f936934328 (SHA-256 hash) of 48 bytes\n"},
        {"authority", EFI_VARIABLE_AUTHORITY, variable(GLOBAL, "db", ID + "\x30\x82\x01"),
         "variable db, " + GLOBAL_TEXT + ", 19 bytes\ncertificate of 3 bytes, owner " + ID_TEXT + "\n"},
        {"authority that is no database's", EFI_VARIABLE_AUTHORITY, variable(ID, "SbatLevel", "sbat,1\n"),
         "variable SbatLevel, " + ID_TEXT + ", 7 bytes\n\"sbat,1\\x0a\"\n"},
        {"image without a path", EFI_BOOT_SERVICES_DRIVER, le(0x1000, 8) + le(1, 8) + le(0, 8) + le(0, 8),
         "image without a device path\nat 0x1000, 1 byte\n"},
        {"type that nobody has", 0x7777, "\1"s, "01\n"},
        {"image", EFI_BOOT_SERVICES_APPLICATION,
         le(0x7e000000, 8) + le(4096, 8) + le(0, 8) + le(DISK_PATH.size(), 8) + DISK_PATH,
         DISK_TEXT + "\nat 0x7e000000, 4,096 bytes\n"},
        {"partitions", EFI_GPT_EVENT, GPT,
         "GPT disk " + ID_TEXT + ", usable blocks 34 to 2014, 1 partition\npartition " + ID_TEXT +
             ", type c12a7328-f81f-11d2-ba4b-00a0c93ec93b (EFI system partition), blocks 40 to 99, "
             "\"boot\"\n"},
    };
}

// A terminal shows it as it is: one line, nothing that steers.
bool is_fit(std::string_view text)
{
    while (!text.empty()) {
        const code_point next = next_utf8(text);
        if (next.length == 0 || is_unsafe(next.value))
            return false;
        text.remove_prefix(next.length);
    }
    return true;
}

// Decodes an exact copy, so that a sanitizer sees a read behind it.
void expect_fit(std::uint32_t type, std::string_view data)
{
    const std::vector<char> copy(data.begin(), data.end());
    const std::vector<std::string> lines = event_data_lines(type, {copy.data(), copy.size()});
    ASSERT_FALSE(lines.empty());
    for (const std::string &line : lines) {
        ASSERT_TRUE(is_fit(line)) << format("%08x ", type) << hex(data);
        ASSERT_LT(line.size(), 16000U);
    }
}

} // namespace

TEST(event_data, good_data_is_shown_in_words)
{
    for (const event_case &c : event_cases()) {
        std::string shown;
        for (const std::string &line : event_data_lines(c.type, c.data))
            shown += line + '\n';
        EXPECT_EQ(shown, c.shown) << c.what;
    }
}

TEST(event_data, cut_and_damaged_data_stays_inside_its_bounds)
{
    for (const event_case &c : event_cases())
        for (std::size_t i = 0; i <= c.data.size(); ++i) {
            expect_fit(c.type, std::string_view(c.data).substr(0, i));
            for (const char value : {'\xff', '\x00', '\x1b'}) {
                std::string damaged = c.data;
                damaged[std::min(i, c.data.size() - 1)] = value;
                expect_fit(c.type, damaged);
            }
        }
}

TEST(event_data, any_bytes_under_any_type_stay_inside_their_bounds)
{
    std::ifstream file(ATTEST_TEST_DATA "/recorded-a-boot.bin", std::ios::binary);
    const std::string log{std::istreambuf_iterator<char>(file), {}};
    ASSERT_GT(log.size(), 2000U);
    for (std::size_t at = 0; at < log.size(); at += 3)
        for (const event_case &c : event_cases())
            expect_fit(c.type, std::string_view(log).substr(at, 200));
}

TEST(event_data, a_cut_is_said)
{
    const std::vector<event_case> cases = event_cases();
    const event_case &image = *std::find_if(cases.begin(), cases.end(),
                                            [](const event_case &one) { return one.what == "image"sv; });
    const std::string cut = image.data.substr(0, image.data.size() - 1);
    EXPECT_THAT(event_data_lines(image.type, cut).front(),
                testing::EndsWith("(does not fit the layout of its type)"));
    EXPECT_THAT(device_path_text(DISK_PATH.substr(0, DISK_PATH.size() - 5)),
                testing::EndsWith("(a node does not fit)"));
    EXPECT_THAT(device_path_text(bytes("7f01040001010300")), testing::EndsWith("(a node does not fit)"));
}

TEST(event_data, variables_that_are_not_what_their_name_says_are_shown_as_they_are)
{
    const struct {
        const char *name;
        std::string data, text;
    } cases[] = {
        {"SecureBoot", "\2", "02"},
        {"BootOrder", "\1\0\2"s, "010002"},
        {"Boot0001", le(1, 4) + le(4, 2) + wide("no end") + END, " (no load option)"},
        {"Boot0001", le(0, 4) + le(4, 2) + wide("off\0"s) + END, "\"off\"  (inactive)"},
        {"Boot0001", le(1, 4) + le(4, 2) + wide("a\" File(b) with \"\0"s) + END,
         "\"a\\x22 File(b) with \\x22\" "},
        {"Boot000g", "te\"xt", "\"te\\x22xt\""},
        {"dbx", "", "(empty)"},
        {"dbx", ID + le(27, 4) + le(0, 4) + le(1, 4), " (no signature list)"},
        {"dbx", ID + le(29, 4) + le(2, 4) + le(1, 4) + "s", " (no signature list)"},
        {"dbx", ID + le(29, 4) + le(0, 4) + le(0, 4) + "s", " (no signature list)"},
        {"dbx", ID + le(29, 4) + le(0, 4) + le(1, 4), " (a signature list does not fit)"},
    };
    for (const auto &c : cases)
        EXPECT_THAT(variable_data_text(c.name, c.data), testing::EndsWith(c.text)) << c.name;
    EXPECT_EQ(signature_entry_text("short"), "\"short\"");
}

TEST(event_data, lists_that_do_not_end_are_cut)
{
    std::string order, lists, tables, algorithms;
    for (int i = 0; i < 200; ++i) {
        order += le(i, 2);
        lists += ID + le(28, 4) + le(0, 4) + le(1, 4);
        tables += ID + le(i, 8);
        algorithms += le(0xb, 2) + le(32, 2);
    }
    EXPECT_THAT(variable_data_text("BootOrder", order), testing::EndsWith("Boot001F, ..."));
    EXPECT_THAT(variable_data_text("db", lists), testing::EndsWith("of 1 bytes; ..."));
    EXPECT_EQ(event_data_lines(event_type::EFI_HANDOFF_TABLES, le(200, 8) + tables).back(),
              "... 72 more tables");
    std::string entries;
    for (int i = 0; i < 200; ++i)
        entries += GPT.substr(92);
    const std::vector<std::string> lines = event_data_lines(
        event_type::EFI_GPT_EVENT2, GPT.substr(0, GPT.size() - 128 - 8) + le(200, 8) + entries);
    EXPECT_EQ(lines.back(), "... 72 more partitions");
    EXPECT_EQ(lines.size(), 130U);
    const std::string spec_id = "Spec ID Event03\0"s + le(0, 4) + bytes("00020002") + le(200, 4) + algorithms;
    EXPECT_LT(event_data_lines(event_type::NO_ACTION, spec_id).back().size(), 4000U);
}

TEST(device_path, nodes_read_as_the_firmware_shows_them)
{
    const struct {
        std::string path, text;
    } cases[] = {
        {node(2, 1, le(0x050141d0, 4) + le(2, 4)), "Acpi(PNP0501,0x2)"},
        {node(2, 1, le(0x0a0841d0, 4) + le(1, 4)), "PcieRoot(0x1)"},
        {node(2, 1, le(0, 4) + le(0, 4)), "Acpi(???0000,0x0)"},
        {node(1, 3, le(11, 4) + le(0x1000, 8) + le(0x1fff, 8)), "MemoryMapped(11,0x1000,0x1fff)"},
        {node(1, 4, ID), "VenHw(01020304-0506-0708-090a-0b0c0d0e0f10)"},
        {node(3, 10, ID + "\1\2"), "VenMsg(01020304-0506-0708-090a-0b0c0d0e0f10,0102)"},
        {node(4, 3, ID), "VenMedia(01020304-0506-0708-090a-0b0c0d0e0f10)"},
        {node(3, 1, bytes("00010200")), "Ata(Primary,Slave,0x2)"},
        {node(3, 1, bytes("01000000")), "Ata(Secondary,Master,0x0)"},
        {node(3, 2, le(3, 2) + le(4, 2)), "Scsi(0x3,0x4)"},
        {node(3, 12, bytes("c0a80001c0a800fe") + std::string(11, '\0')), "IPv4(192.168.0.254,192.168.0.1)"},
        {node(3, 12, bytes("c0a80001c0")), "Path(3,12,c0a80001c0)"},
        {node(3, 13, ID + std::string(16, '\0') + std::string(24, '\0')),
         "IPv6(00000000000000000000000000000000,"
         "0403020106050807090a0b0c0d0e0f10)"},
        {node(4, 2, le(1, 4) + le(16, 8) + le(32, 8)), "CDROM(0x1,0x10,0x20)"},
        {node(4, 8, le(0, 4) + le(16, 8) + le(31, 8)), "Offset(0x10,0x1f)"},
        {node(5, 1, le(2, 2) + le(0, 2) + "disk\0"s), "BBS(0x2,disk)"},
        {node(4, 1, le(2, 4) + le(63, 8) + le(99, 8) + ID + bytes("0101")), "HD(2,MBR,04030201,0x3f,0x63)"},
        {node(4, 1, le(2, 4) + le(63, 8) + le(99, 8) + ID + bytes("0100")), "HD(2,-,0x3f,0x63)"},
        {node(3, 11, ID + ID + "\x20"), "MAC(" + hex(ID + ID) + ",0x20)"},
        {node(3, 5, bytes("0301")), "USB(0x3,0x1)"},
        {node(3, 23, le(1, 4) + le(0x1122, 8)), "NVMe(0x1,0000000000001122)"},
        {node(3, 11, bytes("525400123456") + std::string(26, '\0') + "\1"), "MAC(525400123456,0x1)"},
        {node(3, 24, "https://boot/\x1b[2J"), "Uri(https://boot/\\x1b[2J)"},
        {node(4, 7, ID) + node(4, 6, ID), "Fv(01020304-0506-0708-090a-0b0c0d0e0f10)/"
                                          "FvFile(01020304-0506-0708-090a-0b0c0d0e0f10)"},
        {node(4, 1, le(1, 4)), "Path(4,1,01000000)"},
        {node(9, 9, "ab"), "Path(9,9,6162)"},
        {node(3, 5, bytes("0301")) + bytes("7f010400") + node(3, 5, bytes("0401")),
         "USB(0x3,0x1),USB(0x4,0x1)"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(device_path_text(c.path + END), c.text);
    std::string endless;
    for (int i = 0; i < 5000; ++i)
        endless += node(9, 9, "");
    EXPECT_LT(device_path_text(endless).size(), 2000U);
}
