#include <algorithm>
#include <array>
#include <cctype>

#include "attestctl/byte_reader.h"
#include "attestctl/text.h"
#include "attestctl/uefi.h"

namespace {

constexpr int MAX_LIST_ENTRIES = 32;

std::string state(std::string_view data)
{
    if (data == std::string_view("\0", 1))
        return "off (0)";
    if (data == std::string_view("\1", 1))
        return "on (1)";
    return text_or_hex(data);
}

std::string boot_order(std::string_view data)
{
    if (data.empty() || data.size() % 2 != 0)
        return text_or_hex(data);
    byte_reader in(data);
    std::string out;
    for (int i = 0; !in.at_end(); ++i) {
        if (i == MAX_LIST_ENTRIES)
            return out + ", ...";
        out += (i == 0 ? "" : ", ") + format("Boot%04X", in.u16());
    }
    return out;
}

// The bytes of a NUL-terminated UTF-16 string, without the NUL, which is skipped.
std::string_view wide_string(byte_reader &in, std::string_view rest)
{
    for (std::size_t i = 0; i + 1 < rest.size(); i += 2)
        if (rest[i] == 0 && rest[i + 1] == 0) {
            in.bytes(i + 2);
            return rest.substr(0, i);
        }
    in.fail();
    return {};
}

std::string load_option(std::string_view data)
{
    byte_reader in(data);
    const unsigned attributes = in.u32();
    const std::size_t path_length = in.u16();
    const std::string_view description = wide_string(in, data.substr(std::min<std::size_t>(6, data.size())));
    const std::string_view path = in.bytes(path_length);
    if (!in.ok())
        return text_or_hex(data) + " (no load option)";
    const std::string_view optional = in.rest();
    return '"' + printable_utf16(description) + "\" " + device_path_text(path) +
           ((attributes & 1) != 0 ? "" : " (inactive)") +
           (optional.empty() ? "" : " with " + text_or_hex(optional));
}

// EFI_SIGNATURE_LISTs one after the other: a type, three sizes, a header, entries of one size.
std::string signature_lists(std::string_view data)
{
    if (data.empty())
        return "(empty)";
    byte_reader in(data);
    std::string out;
    for (int i = 0; !in.at_end(); ++i) {
        if (i == MAX_LIST_ENTRIES)
            return out + "; ...";
        constexpr std::uint32_t LIST_HEADER = GUID_SIZE + 12;
        const std::string type = guid_text_named(in.bytes(GUID_SIZE));
        const std::uint32_t list_size = in.u32();
        const std::uint32_t header_size = in.u32();
        const std::uint32_t entry_size = in.u32();
        if (!in.ok() || list_size < LIST_HEADER || header_size > list_size - LIST_HEADER || entry_size == 0)
            return text_or_hex(data) + " (no signature list)";
        const std::uint32_t entries = (list_size - LIST_HEADER - header_size) / entry_size;
        in.bytes(list_size - LIST_HEADER);
        if (!in.ok())
            return out + " (a signature list does not fit)";
        out += (i == 0 ? "" : "; ") + format("%u x ", entries) + type + format(" of %u bytes", entry_size);
    }
    return out;
}

struct variable_row {
    std::string_view name;
    std::string (*render)(std::string_view data);
};

constexpr auto VARIABLES = std::to_array<variable_row>({
    {"SecureBoot", state},
    {"SetupMode", state},
    {"AuditMode", state},
    {"DeployedMode", state},
    {"BootOrder", boot_order},
    {"PK", signature_lists},
    {"KEK", signature_lists},
    {"db", signature_lists},
    {"dbx", signature_lists},
    {"dbt", signature_lists},
    {"dbr", signature_lists},
});

// "Boot" and four hexadecimal digits.
bool is_load_option(std::string_view name)
{
    return name.size() == 8 && name.starts_with("Boot") &&
           std::all_of(name.begin() + 4, name.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

} // namespace

std::string variable_data_text(std::string_view name, std::string_view data)
{
    if (is_load_option(name))
        return load_option(data);
    for (const variable_row &row : VARIABLES)
        if (row.name == name)
            return row.render(data);
    return text_or_hex(data);
}

std::string signature_entry_text(std::string_view entry)
{
    byte_reader in(entry);
    const std::string_view owner = in.bytes(GUID_SIZE);
    if (!in.ok())
        return text_or_hex(entry);
    const std::string_view signature = in.rest();
    // A DER certificate starts with a SEQUENCE whose length takes two bytes.
    const bool der = signature.starts_with("\x30\x82");
    return (der ? "certificate of " : "entry of ") + counted(signature.size(), "byte") + ", owner " +
           guid_text_named(owner);
}
