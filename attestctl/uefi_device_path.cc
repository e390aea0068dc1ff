#include <algorithm>
#include <array>

#include "attestctl/byte_reader.h"
#include "attestctl/text.h"
#include "attestctl/uefi.h"

namespace {

// A path of a firmware has a dozen nodes; a path of nothing but four-byte nodes could have thousands.
constexpr int MAX_NODES = 64;

// Node renderers get the node's data behind its header. A read that did not fit is noticed by the caller.

std::string pci(byte_reader &in)
{
    const unsigned function = in.u8();
    const unsigned device = in.u8();
    return format("Pci(0x%x,0x%x)", device, function);
}

std::string memory_mapped(byte_reader &in)
{
    const unsigned type = in.u32();
    const std::uint64_t start = in.u64();
    const std::uint64_t end = in.u64();
    return format("MemoryMapped(%u,0x%lx,0x%lx)", type, start, end);
}

std::string vendor(byte_reader &in, const char *name)
{
    const std::string guid = guid_text(in.bytes(GUID_SIZE));
    const std::string_view data = in.rest();
    return name + ("(" + guid) + (data.empty() ? ")" : "," + hex_preview(data) + ")");
}

std::string vendor_hardware(byte_reader &in)
{
    return vendor(in, "VenHw");
}

std::string vendor_messaging(byte_reader &in)
{
    return vendor(in, "VenMsg");
}

std::string vendor_media(byte_reader &in)
{
    return vendor(in, "VenMedia");
}

std::string acpi(byte_reader &in)
{
    const std::uint32_t hid = in.u32();
    const unsigned uid = in.u32();
    if (hid == 0x0a0341d0)
        return format("PciRoot(0x%x)", uid);
    if (hid == 0x0a0841d0)
        return format("PcieRoot(0x%x)", uid);
    // The low half is three letters of five bits each, the high half the product number.
    const auto letter = [hid](int shift) {
        const unsigned value = (hid >> shift) & 0x1f;
        return value >= 1 && value <= 26 ? static_cast<char>('A' - 1 + value) : '?';
    };
    return format("Acpi(%c%c%c%04X,0x%x)", letter(10), letter(5), letter(0), hid >> 16, uid);
}

std::string ata(byte_reader &in)
{
    const bool secondary = in.u8() != 0;
    const bool slave = in.u8() != 0;
    const unsigned lun = in.u16();
    return format("Ata(%s,%s,0x%x)", secondary ? "Secondary" : "Primary", slave ? "Slave" : "Master", lun);
}

std::string scsi(byte_reader &in)
{
    const unsigned target = in.u16();
    const unsigned lun = in.u16();
    return format("Scsi(0x%x,0x%x)", target, lun);
}

std::string usb(byte_reader &in)
{
    const unsigned port = in.u8();
    const unsigned interface = in.u8();
    return format("USB(0x%x,0x%x)", port, interface);
}

std::string sata(byte_reader &in)
{
    const unsigned port = in.u16();
    const unsigned multiplier = in.u16();
    const unsigned lun = in.u16();
    return format("Sata(0x%x,0x%x,0x%x)", port, multiplier, lun);
}

std::string nvme(byte_reader &in)
{
    const unsigned name_space = in.u32();
    const std::uint64_t eui = in.u64();
    return format("NVMe(0x%x,%016lx)", name_space, eui);
}

std::string mac(byte_reader &in)
{
    const std::string_view address = in.bytes(32);
    const unsigned type = in.u8();
    // Ethernet addresses (types 0 and 1) are the first 6 of the 32 bytes.
    return "MAC(" + hex(address.substr(0, type <= 1 ? 6 : 32)) + format(",0x%x)", type);
}

std::string ipv4(byte_reader &in)
{
    const auto dotted = [&in] {
        const std::string_view a = in.bytes(4);
        return a.empty()
                   ? std::string()
                   : format("%u.%u.%u.%u", static_cast<unsigned char>(a[0]), static_cast<unsigned char>(a[1]),
                            static_cast<unsigned char>(a[2]), static_cast<unsigned char>(a[3]));
    };
    const std::string local = dotted();
    const std::string remote = dotted();
    in.rest();
    return "IPv4(" + remote + "," + local + ")";
}

std::string ipv6(byte_reader &in)
{
    const std::string local = hex(in.bytes(16));
    const std::string remote = hex(in.bytes(16));
    in.rest();
    return "IPv6(" + remote + "," + local + ")";
}

std::string uri(byte_reader &in)
{
    return "Uri(" + printable(in.rest()) + ")";
}

std::string hard_drive(byte_reader &in)
{
    const unsigned partition = in.u32();
    const std::uint64_t start = in.u64();
    const std::uint64_t size = in.u64();
    const std::string_view signature = in.bytes(GUID_SIZE);
    in.u8(); // format of the partition table; the signature's type tells the same
    const unsigned type = in.u8();
    std::string id = "-";
    if (type == 2)
        id = "GPT," + guid_text(signature);
    else if (type == 1)
        id = "MBR," + hex(signature.substr(0, 4));
    return format("HD(%u,", partition) + id + format(",0x%lx,0x%lx)", start, size);
}

std::string cdrom(byte_reader &in)
{
    const unsigned entry = in.u32();
    const std::uint64_t start = in.u64();
    const std::uint64_t size = in.u64();
    return format("CDROM(0x%x,0x%lx,0x%lx)", entry, start, size);
}

std::string file_path(byte_reader &in)
{
    return "File(" + printable_utf16(in.rest()) + ")";
}

std::string firmware_file(byte_reader &in)
{
    return "FvFile(" + guid_text(in.bytes(GUID_SIZE)) + ")";
}

std::string firmware_volume(byte_reader &in)
{
    return "Fv(" + guid_text(in.bytes(GUID_SIZE)) + ")";
}

std::string offset_range(byte_reader &in)
{
    in.u32(); // reserved
    const std::uint64_t start = in.u64();
    const std::uint64_t end = in.u64();
    return format("Offset(0x%lx,0x%lx)", start, end);
}

std::string bbs(byte_reader &in)
{
    const unsigned type = in.u16();
    in.u16(); // status flags
    return format("BBS(0x%x,", type) + printable(before_nul(in.rest())) + ")";
}

struct node_row {
    std::uint8_t type, subtype;
    std::string (*render)(byte_reader &data);
};

constexpr auto NODES = std::to_array<node_row>({
    {1, 1, pci},
    {1, 3, memory_mapped},
    {1, 4, vendor_hardware},
    {2, 1, acpi},
    {3, 1, ata},
    {3, 2, scsi},
    {3, 5, usb},
    {3, 10, vendor_messaging},
    {3, 11, mac},
    {3, 12, ipv4},
    {3, 13, ipv6},
    {3, 18, sata},
    {3, 23, nvme},
    {3, 24, uri},
    {4, 1, hard_drive},
    {4, 2, cdrom},
    {4, 3, vendor_media},
    {4, 4, file_path},
    {4, 6, firmware_file},
    {4, 7, firmware_volume},
    {4, 8, offset_range},
    {5, 1, bbs},
});

constexpr std::uint8_t TYPE_END = 0x7f;
constexpr std::uint8_t END_ENTIRE = 0xff;
constexpr std::size_t NODE_HEADER = 4;

std::string node_text(std::uint8_t type, std::uint8_t subtype, std::string_view data)
{
    for (const node_row &row : NODES) {
        if (row.type != type || row.subtype != subtype)
            continue;
        byte_reader in(data);
        std::string text = row.render(in);
        if (in.ok())
            return text;
    }
    return format("Path(%u,%u,", type, subtype) + hex_preview(data) + ")";
}

} // namespace

std::string device_path_text(std::string_view path)
{
    byte_reader in(path);
    std::string out;
    bool new_instance = true;
    for (int count = 0; !in.at_end(); ++count) {
        const std::uint8_t type = in.u8();
        const std::uint8_t subtype = in.u8();
        const std::size_t length = in.u16();
        if (!in.ok() || length < NODE_HEADER || length - NODE_HEADER > in.remaining())
            return out + " (a node does not fit)";
        if (type == TYPE_END && subtype == END_ENTIRE)
            return out;
        if (count == MAX_NODES)
            return out + " ... (more nodes)";
        const std::string_view data = in.bytes(length - NODE_HEADER);
        if (type != TYPE_END)
            out += (new_instance ? "" : "/") + node_text(type, subtype, data);
        else
            out += ",";
        new_instance = type == TYPE_END;
    }
    return out.empty() ? out : out + " (no end node)";
}
