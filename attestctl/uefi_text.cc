#include <algorithm>
#include <array>

#include "attestctl/byte_reader.h"
#include "attestctl/text.h"
#include "attestctl/uefi.h"

namespace {

struct guid_name {
    std::string_view guid, name;
};

constexpr auto GUID_NAMES = std::to_array<guid_name>({
    {"8be4df61-93ca-11d2-aa0d-00e098032b8c", "EFI global variable"},
    {"d719b2cb-3d3a-4596-a3bc-dad00e67656f", "image security database"},
    {"605dab50-e046-4300-abb6-3dd810dd8b23", "shim lock"},
    {"77fa9abd-0359-4d32-bd60-28f4e78f784b", "Microsoft signature owner"},
    {"a5c059a1-94e4-4aa7-87b5-ab155c2bf072", "X.509 certificate"},
    {"c1c41626-504c-4092-aca9-41f936934328", "SHA-256 hash"},
    {"3c5766e8-269c-4e34-aa14-ed776e85b3b6", "RSA-2048 key"},
    {"c12a7328-f81f-11d2-ba4b-00a0c93ec93b", "EFI system partition"},
    {"0fc63daf-8483-4772-8e79-3d69d8477de4", "Linux filesystem"},
    {"21686148-6449-6e6f-744e-656564454649", "BIOS boot"},
    {"4f68bce3-e8cd-4db1-96e7-fbcaf984b709", "Linux root (x86-64)"},
    {"e6d6d379-f507-44c2-a23c-238f2a3df928", "Linux LVM"},
    {"0657fd6d-a4ab-43c4-84e5-0933c84b4f4f", "Linux swap"},
    {"bc13c2ff-59e6-4262-a352-b275fd6f7172", "Linux extended boot"},
    {"ebd0a0a2-b9e5-4433-87c0-68b6b72699c7", "basic data"},
    {"eb9d2d30-2d88-11d3-9a16-0090273fc14d", "ACPI table"},
    {"8868e871-e4f1-11d3-bc22-0080c73c8881", "ACPI 2.0 table"},
    {"eb9d2d31-2d88-11d3-9a16-0090273fc14d", "SMBIOS table"},
    {"f2fd1544-9794-4a2c-992e-e5bbcf20e394", "SMBIOS 3 table"},
});

bool is_plain_ascii(std::string_view bytes)
{
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char c) { return (c >= 0x20 && c < 0x7f) || c == '\n' || c == '\t' || c == '\r'; });
}

// ASCII written as UTF-16LE: a boot loader's or kernel's command line.
bool is_wide_ascii(std::string_view bytes)
{
    if (bytes.size() < 4 || bytes.size() % 2 != 0)
        return false;
    std::string narrow;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        if (bytes[i + 1] != 0)
            return false;
        narrow += bytes[i];
    }
    while (!narrow.empty() && narrow.back() == 0)
        narrow.pop_back();
    return !narrow.empty() && is_plain_ascii(narrow);
}

} // namespace

std::string guid_text(std::string_view guid)
{
    byte_reader in(guid);
    const std::uint32_t a = in.u32();
    const std::uint16_t b = in.u16();
    const std::uint16_t c = in.u16();
    const std::string d = hex(in.bytes(8));
    if (!in.ok() || !in.at_end())
        return hex_preview(guid);
    return format("%08x-%04x-%04x-", a, b, c) + d.substr(0, 4) + "-" + d.substr(4);
}

std::string guid_text_named(std::string_view guid)
{
    const std::string text = guid_text(guid);
    const auto *row = std::find_if(GUID_NAMES.begin(), GUID_NAMES.end(),
                                   [&text](const guid_name &known) { return known.guid == text; });
    return row == GUID_NAMES.end() ? text : text + " (" + std::string(row->name) + ")";
}

std::string text_or_hex(std::string_view bytes)
{
    if (bytes.empty())
        return "(empty)";
    if (is_wide_ascii(bytes))
        return '"' + printable_utf16(bytes) + '"';
    std::string_view text = bytes;
    while (!text.empty() && text.back() == 0)
        text.remove_suffix(1);
    if (!text.empty() && is_plain_ascii(text))
        return '"' + printable(text, MAX_TEXT_BYTES, backslash::single) + '"';
    return hex_preview(bytes);
}
