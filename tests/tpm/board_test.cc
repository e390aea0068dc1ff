// The board's identifiers, from trees like those of /sys and /proc: chips cannot be swapped for real here.
#include <filesystem>
#include <map>

#include <gmock/gmock.h>

#include "platform/tpm/board_identifiers.h"
#include "platform/tpm/board_smbios.h"
#include "platform/tpm/reference_list.h"
#include "tests/tpm/software_tpm.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class board_test : public ::testing::Test {
protected:
    void put(const std::string &path, const std::string &content) const
    {
        const fs::path file = root_.path() + path;
        fs::create_directories(file.parent_path());
        write_file(file, content);
    }
    // A device as the kernel lays it out, and its entry in a class.
    void device(const std::string &devices_path, const std::string &class_entry) const
    {
        fs::create_directories(root_.path() + "/sys/devices" + devices_path);
        const fs::path entry = root_.path() + class_entry;
        fs::create_directories(entry);
        fs::create_directory_symlink(root_.path() + "/sys/devices" + devices_path, entry / "device");
    }
    void network(const std::string &name, const std::string &devices_path, const std::string &address,
                 const std::string &assign_type = "0\n") const
    {
        device(devices_path, "/sys/class/net/" + name);
        put("/sys/class/net/" + name + "/address", address + "\n");
        put("/sys/class/net/" + name + "/addr_assign_type", assign_type);
    }
    void disk(const std::string &name, const std::string &devices_path, const std::string &wwid) const
    {
        device(devices_path, "/sys/block/" + name);
        put("/sys/block/" + name + "/wwid", wwid + "\n");
        put("/sys/block/" + name + "/removable", "0\n");
    }
    std::vector<std::pair<std::string, std::string>> read() const
    {
        std::vector<std::pair<std::string, std::string>> list;
        for (const board_identifier &one : board_identifiers_read({root_.path(), false}))
            list.emplace_back(one.place, one.value);
        return list;
    }

    temporary_directory root_;
};

TEST_F(board_test, PlacesDoNotDependOnTheOrderInWhichTheKernelFoundThings)
{
    network("eth0", "/pci0000:00/0000:00:1f.6", "52:54:00:00:00:01");
    network("eth1", "/pci0000:00/0000:00:1c.0/0000:02:00.0", "52:54:00:00:00:02");
    disk("sda", "/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0", "naa.5000000000000002");
    disk("sdb", "/pci0000:00/0000:00:17.0/ata2/host1/target1:0:0/1:0:0:0", "naa.5000000000000001");
    const auto first = read();
    EXPECT_THAT(first, ElementsAre(Pair("net/0000:00:1f.6", "52:54:00:00:00:01 :"),
                                   Pair("net/0000:02:00.0", "52:54:00:00:00:02 :"),
                                   Pair("storage/0000:00:17.0", "naa.5000000000000001"),
                                   Pair("storage/0000:00:17.0#1", "naa.5000000000000002")));
    for (const char *gone : {"/sys/class/net", "/sys/block"})
        fs::remove_all(root_.path() + gone);
    network("eth0", "/pci0000:00/0000:00:1c.0/0000:02:00.0", "52:54:00:00:00:02");
    network("eth1", "/pci0000:00/0000:00:1f.6", "52:54:00:00:00:01");
    disk("sda", "/pci0000:00/0000:00:17.0/ata2/host3/target3:0:0/3:0:0:0", "naa.5000000000000001");
    disk("sdb", "/pci0000:00/0000:00:17.0/ata1/host2/target2:0:0/2:0:0:0", "naa.5000000000000002");
    EXPECT_EQ(read(), first);
}

TEST_F(board_test, WhatComesAndGoesIsLeftOut)
{
    EXPECT_THAT(read(), IsEmpty()) << "of a machine that shows nothing";
    network("usb0", "/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0", "52:54:00:00:00:03");
    network("changed0", "/pci0000:00/0000:00:05.0", "52:54:00:00:00:04", "3\n");
    disk("sdc", "/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host4/target4:0:0/4:0:0:0", "usb-stick");
    disk("sr0", "/pci0000:00/0000:00:17.0/ata3/host5/target5:0:0/5:0:0:0", "cd");
    put("/sys/block/sr0/removable", "1\n");
    put("/sys/class/net/lo/address", "00:00:00:00:00:00\n");
    put("/sys/class/net/lo/addr_assign_type", "0\n");
    put("/sys/block/loop0/wwid", "no device behind it\n");
    EXPECT_THAT(read(), IsEmpty());
}

TEST_F(board_test, AProcessorIsItsModelAndNotItsClock)
{
    put("/proc/cpuinfo", "processor\t: 0\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nmicrocode\t: 0x1\n"
                         "cpu MHz\t\t: 800.1\nphysical id\t: 0\n\n"
                         "processor\t: 1\nvendor_id\t: GenuineIntel\ncpu family\t: 7\nphysical id\t: 1\n\n"
                         "processor\t: 2\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nphysical id\t: 0\n\n"
                         "Hardware\t: BCM2835\nSerial\t\t: 00000000abcdef\n");
    EXPECT_THAT(read(), ElementsAre(Pair("cpu/0", "GenuineIntel 6"), Pair("cpu/1", "GenuineIntel 7"),
                                    Pair("cpu/serial", "00000000abcdef")));
}

// One SMBIOS structure: type, formatted bytes after the header, strings.
std::string structure(std::uint8_t type, const std::string &formatted,
                      const std::vector<std::string> &strings)
{
    std::string bytes{static_cast<char>(type), static_cast<char>(4 + formatted.size()), 0, 0};
    bytes += formatted;
    for (const std::string &text : strings)
        bytes += text + '\0';
    return bytes + (strings.empty() ? std::string(2, '\0') : std::string(1, '\0'));
}

std::string smbios_table()
{
    std::string system{1, 2, 0, 3};
    for (char byte = 1; byte <= 16; ++byte)
        system += byte;
    std::string slot(0x17, '\0');
    std::string empty_slot = slot;
    slot[0x14] = 1;
    std::string processor(0x1D, '\0');
    processor.replace(4, 8, "\x12\x34\x56\x78\x9a\xbc\xde\xf0");
    processor[0x1C] = 1;
    return structure(1, std::string(3, 1), {"Maker of before the serial number"}) +
           structure(1, system, {"Maker", "Board", "SYS123"}) + structure(17, empty_slot, {}) +
           structure(17, slot, {"DIMM456"}) + structure(4, processor, {"CPU789"}) +
           structure(4, std::string(8, '\0'), {}) + structure(127, "", {}) +
           structure(3, std::string(9, 1), {"after the end"});
}

TEST_F(board_test, FirmwareTablesGiveSerialNumbersByTheirSlots)
{
    put("/sys/firmware/dmi/tables/DMI", smbios_table());
    EXPECT_THAT(read(), ElementsAre(Pair("smbios/memory/1/serial", "DIMM456"),
                                    Pair("smbios/processor/0/id", "123456789abcdef0"),
                                    Pair("smbios/processor/0/serial", "CPU789"),
                                    Pair("smbios/system/1/serial", "SYS123"),
                                    Pair("smbios/system/1/uuid", "0102030405060708090a0b0c0d0e0f10")));
    fs::remove(root_.path() + "/sys/firmware/dmi/tables/DMI");
    put("/sys/class/dmi/id/product_serial", "SYS123\n");
    EXPECT_THAT(read(), ElementsAre(Pair("dmi/product_serial", "SYS123")));
}

TEST_F(board_test, FirmwareTablesThatLieAreReadNoFurther)
{
    const std::string table = smbios_table();
    for (std::size_t length = 0; length < table.size(); ++length) {
        const std::vector<char> exact(table.begin(),
                                      table.begin() + static_cast<long>(length)); // no byte to spare
        std::vector<board_identifier> list;
        smbios_identifiers(std::as_bytes(std::span(exact)), list);
        for (std::size_t at = 0; at < length; ++at) {
            std::vector<char> wrong = exact;
            wrong[at] = static_cast<char>(0xFF);
            smbios_identifiers(std::as_bytes(std::span(wrong)), list);
        }
    }
    std::vector<board_identifier> list;
    smbios_identifiers(std::as_bytes(std::span(std::string_view("\x01\x03\0\0\0\0", 6))), list);
    EXPECT_THAT(list, IsEmpty()) << "a structure shorter than its header";
}

TEST_F(board_test, TheBoardIsComparedPlaceByPlace)
{
    const std::vector<board_identifier> provisioned{{"a", "1"}, {"b", "2"}, {"c", "3"}};
    std::vector<manifest_identifier> reference;
    ASSERT_TRUE(reference_list_make(provisioned, reference));
    for (const tpm_algorithm &algorithm : tpm_algorithms) {
        const std::size_t size = algorithm.digest_size;
        const std::vector<std::uint8_t> recorded = reference_digests(reference, algorithm);
        std::vector<std::uint8_t> now;
        ASSERT_TRUE(board_digests(provisioned, reference, algorithm, now));
        EXPECT_EQ(now, recorded);
        ASSERT_TRUE(board_digests({{"aa", "9"}, {"b", "x"}, {"c", "3"}}, reference, algorithm, now));
        ASSERT_EQ(now.size(), 4 * size);
        const auto entry = [&](const std::vector<std::uint8_t> &list, std::size_t i) {
            return std::vector(list.begin() + static_cast<long>(i * size),
                               list.begin() + static_cast<long>((i + 1) * size));
        };
        EXPECT_EQ(entry(now, 0), std::vector<std::uint8_t>(size)) << "removed";
        EXPECT_NE(entry(now, 1), entry(recorded, 1)) << "swapped";
        EXPECT_EQ(entry(now, 2), entry(recorded, 2));
    }
}

} // namespace
