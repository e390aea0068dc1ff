#include "platform/tpm/board_identifiers.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <map>
#include <memory>
#include <net/if.h>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <tuple>

#include "platform/owners.h"
#include "platform/small_file.h"
#include "platform/tpm/board_smbios.h"
#include "platform/tpm/manifest.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t SMBIOS_MAX = std::size_t{1} << 20;
constexpr std::size_t CPUINFO_MAX = std::size_t{8} << 20;

// Where a device sits: the last PCI address on the way to it, else the device's own name.
std::string bus_address(const std::string &device_path)
{
    const auto is_pci = [](const std::string &name) { // 0000:00:1f.6
        constexpr char shape[] = "hhhh:hh:hh.h";
        return name.size() == sizeof shape - 1 &&
               std::equal(name.begin(), name.end(), shape, [](char have, char wanted) {
                   return wanted == 'h' ? std::isxdigit(static_cast<unsigned char>(have)) != 0
                                        : have == wanted;
               });
    };
    std::string address = fs::path(device_path).filename();
    for (const fs::path &name : fs::path(device_path)) {
        if (is_pci(name))
            address = name;
    }
    return address;
}

bool is_on_usb(const std::string &device_path)
{
    return device_path.find("/usb") != std::string::npos;
}

// The device behind an entry of /sys/class/net or /sys/block: empty for a virtual one.
std::string device_path_of(const fs::path &entry)
{
    std::error_code error;
    const fs::path device = fs::canonical(entry / "device", error);
    return error ? std::string() : device.string();
}

struct directory_closer {
    void operator()(DIR *directory) const noexcept { closedir(directory); }
};

// By the C library: the standard library's iterator ends the process when there is no memory for a name.
std::vector<fs::path> entries_of(const std::string &path)
{
    std::vector<fs::path> entries;
    const std::unique_ptr<DIR, directory_closer> directory(opendir(path.c_str()));
    while (const dirent *entry = directory ? readdir(directory.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            entries.push_back(fs::path(path) / name);
    }
    return entries;
}

void add_smbios(const board_source &source, std::vector<board_identifier> &list)
{
    std::vector<std::uint8_t> table;
    if (small_file_read(source.root + "/sys/firmware/dmi/tables/DMI", SMBIOS_MAX, table) == 0) {
        smbios_identifiers(std::as_bytes(std::span(table)), list);
        return;
    }
    for (const char *attribute : {"product_uuid", "product_serial", "board_serial", "chassis_serial"})
        list.push_back({std::string("dmi/") + attribute,
                        small_text_read(source.root + "/sys/class/dmi/id/" + attribute)});
}

// What of /proc/cpuinfo says which processor it is (x86, then ARM), and does not change with its microcode,
// its clock or its load.
constexpr std::array CPU_KEYS{"vendor_id", "cpu family",      "model",       "stepping", "model name",
                              "cpu",       "CPU implementer", "CPU variant", "CPU part", "CPU revision"};

void add_processors(const board_source &source, std::vector<board_identifier> &list)
{
    std::vector<std::uint8_t> content;
    if (small_file_read(source.root + "/proc/cpuinfo", CPUINFO_MAX, content) != 0)
        return;
    std::istringstream lines(std::string(content.begin(), content.end()));
    std::map<std::string, std::string> packages;
    std::string package = "0";
    std::string model;
    const auto end_block = [&] {
        if (!model.empty())
            packages.try_emplace(package, model);
        package = "0";
        model.clear();
    };
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) {
            end_block();
            continue;
        }
        const std::string key = line.substr(0, std::min(colon, line.find('\t')));
        const std::string value = colon + 2 < line.size() ? line.substr(colon + 2) : std::string();
        if (key == "physical id")
            package = value;
        else if (key == "Serial")
            list.push_back({"cpu/serial", value});
        else if (std::find(CPU_KEYS.begin(), CPU_KEYS.end(), key) != CPU_KEYS.end())
            model += (model.empty() ? "" : " ") + value;
    }
    end_block();
    for (const auto &[number, value] : packages)
        list.push_back({"cpu/" + number, value});
}

void add_serial_numbers(const board_source &source, std::vector<board_identifier> &list)
{
    list.push_back({"soc/serial", small_text_read(source.root + "/sys/devices/soc0/serial_number")});
    list.push_back(
        {"board/serial", small_text_read(source.root + "/sys/firmware/devicetree/base/serial-number")});
}

// The address that the controller was made with, as the driver tells it; empty where it does not.
std::string permanent_address(const std::string &interface)
{
    const unique_fd any_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!any_socket || interface.size() >= IFNAMSIZ)
        return {};
    constexpr std::size_t room = 32; // MAX_ADDR_LEN
    alignas(ethtool_perm_addr) std::uint8_t answer[sizeof(ethtool_perm_addr) + room]{};
    ethtool_perm_addr header{ETHTOOL_GPERMADDR, room};
    std::memcpy(answer, &header, sizeof header);
    ifreq request{};
    interface.copy(request.ifr_name, IFNAMSIZ - 1);
    request.ifr_data = reinterpret_cast<char *>(answer);
    if (ioctl(any_socket.get(), SIOCETHTOOL, &request) != 0)
        return {};
    std::memcpy(&header, answer, sizeof header);
    std::string text;
    bool set = false;
    for (std::size_t i = 0; i < std::min<std::size_t>(header.size, room); ++i) {
        const std::uint8_t byte = answer[sizeof header + i];
        text += (i == 0 ? "" : ":") + hex_text(&byte, 1);
        set = set || byte != 0;
    }
    return set ? text : std::string();
}

void add_network(const board_source &source, std::vector<board_identifier> &list)
{
    for (const fs::path &entry : entries_of(source.root + "/sys/class/net")) {
        const std::string device = device_path_of(entry);
        if (device.empty() || is_on_usb(device))
            continue;
        std::string address = source.ask_network ? permanent_address(entry.filename()) : std::string();
        if (address.empty() && small_text_read(entry / "addr_assign_type") == "0")
            address = small_text_read(entry / "address");
        if (address.empty())
            continue;
        address.append(" ").append(small_text_read(device + "/vendor"));
        address.append(":").append(small_text_read(device + "/device"));
        list.push_back({"net/" + bus_address(device), address});
    }
}

void add_storage(const board_source &source, std::vector<board_identifier> &list)
{
    for (const fs::path &entry : entries_of(source.root + "/sys/block")) {
        const std::string device = device_path_of(entry);
        if (device.empty() || is_on_usb(device) || small_text_read(entry / "removable") == "1")
            continue;
        for (const char *attribute : {"wwid", "device/wwid", "device/serial", "serial", "device/cid"}) {
            const std::string value = small_text_read(entry / attribute);
            if (value.empty())
                continue;
            list.push_back({"storage/" + bus_address(device), value});
            break;
        }
    }
}

void make_printable(std::string &place)
{
    for (char &letter : place) {
        if (letter < ' ' || letter > '~')
            letter = '?';
    }
}

// Sorts, and tells several identifiers of one place apart.
void settle_places(std::vector<board_identifier> &list)
{
    std::erase_if(list, [](const board_identifier &one) { return one.value.empty(); });
    for (board_identifier &one : list)
        make_printable(one.place);
    const auto by_place = [](const board_identifier &a, const board_identifier &b) {
        return std::tie(a.place, a.value) < std::tie(b.place, b.value);
    };
    std::sort(list.begin(), list.end(), by_place);
    std::string place;
    std::size_t repeated = 0;
    for (board_identifier &one : list) {
        repeated = one.place == place ? repeated + 1 : 0;
        place = one.place;
        if (repeated > 0)
            one.place += "#" + std::to_string(repeated);
    }
    std::sort(list.begin(), list.end(), by_place);
}

} // namespace

std::vector<board_identifier> board_identifiers_read(const board_source &source)
{
    std::vector<board_identifier> list;
    add_smbios(source, list);
    add_processors(source, list);
    add_serial_numbers(source, list);
    add_network(source, list);
    add_storage(source, list);
    settle_places(list);
    if (list.size() > MANIFEST_MAX_IDENTIFIERS)
        list.resize(MANIFEST_MAX_IDENTIFIERS);
    return list;
}
