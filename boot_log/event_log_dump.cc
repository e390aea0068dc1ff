#include "boot_log/event_log_dump.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "agent/debug_trace.h"
#include "boot_log/efi_text.h"
#include "boot_log/trace_dump.h"

namespace {

struct event_type_row {
    std::uint32_t type;
    const char *name;
};
constexpr event_type_row event_types[] = {
    {0x00000001, "POST CODE"},
    {EV_NO_ACTION, "No Action"},
    {0x00000004, "Separator"},
    {0x00000007, "S-CRTM Contents"},
    {0x00000008, "S-CRTM Version"},
    {0x00000009, "CPU Microcode"},
    {0x0000000B, "Table of Devices"},
    {EV_IPL, "Grub2 IPL"},
    {EV_EFI_VARIABLE_DRIVER_CONFIG, "EFI Variable Driver Config"},
    {EV_EFI_VARIABLE_BOOT, "EFI Variable Boot"},
    {0x80000003, "EFI Boot Services Application"},
    {0x80000004, "EFI Boot Services Driver"},
    {0x80000005, "EFI Runtime Services Driver"},
    {0x80000006, "EFI GPT Event"},
    {EV_EFI_ACTION, "EFI Action"},
    {0x80000008, "EFI Platform Firmware Blob"},
    {0x80000009, "EFI Handoff Tables"},
    {EV_EFI_VARIABLE_AUTHORITY, "EFI Variable Authority"},
};

void dump_hex(std::span<const std::byte> bytes)
{
    print_hexstring(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

void dump_ascii(std::span<const std::byte> bytes)
{
    print_asciistring(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

void dump_bytes(const char *operation, const boot_record &record)
{
    attest_trace_as(operation, "  EventSize: %u\n", static_cast<std::uint32_t>(record.event_data.size()));
    attest_trace_as(operation, "  Event: ");
    dump_hex(record.event_data);
    attest_trace_as(operation, "\n");
}

struct uefi_variable {
    std::span<const std::byte> guid;
    std::uint64_t name_length; // UTF-16 units
    std::uint64_t data_length; // as the event says it
    std::span<const std::byte> name;
    std::span<const std::byte> data; // what is there of the low 32 bits of that length
};

bool parse_uefi_variable(std::span<const std::byte> event_data, uefi_variable &variable)
{
    byte_cursor fields(event_data);
    if (!fields.get_bytes(16, variable.guid) || !fields.get_le(variable.name_length) ||
        !fields.get_le(variable.data_length))
        return false;
    variable.name_length = std::min<std::uint64_t>(variable.name_length, fields.remaining() / 2);
    std::uint32_t data_length = static_cast<std::uint32_t>(variable.data_length);
    return fields.get_bytes(2 * variable.name_length, variable.name) &&
           fields.get_bytes(std::min<std::size_t>(data_length, fields.remaining()), variable.data);
}

// Data too short for the fixed fields of a variable is dumped as plain bytes.
void dump_uefi_variable(const char *operation, const boot_record &record)
{
    uefi_variable variable = {};
    if (!parse_uefi_variable(record.event_data, variable)) {
        dump_bytes(operation, record);
        return;
    }
    attest_trace_as(operation, "  Guid: %s\n", guid_to_string(variable.guid.first<16>()));
    attest_trace_as(operation, "  Name: %s\n",
                    unicode_name_to_string(variable.name.data(), variable.name_length));
    attest_trace_as(operation, "    VarDataLen: %lu\n", variable.data_length);
    attest_trace_as(operation, "    VarData: ");
    dump_hex(variable.data);
    attest_trace_as(operation, "\n");
    if (ascii == 0 || (!record.crypto_agile && variable.data_length == 0))
        return;
    attest_trace_as(operation, "    ASCII representation: ");
    dump_ascii(variable.data);
    attest_trace_as(operation, "\n");
}

void dump_text(const char *operation, const boot_record &record)
{
    dump_ascii(record.event_data);
    attest_trace_as(operation, "\n");
}

void dump_listed_algorithm(const char *operation, std::uint16_t identifier, std::uint16_t digest_size)
{
    const auto *known =
        std::ranges::find(boot_digest_algorithms, identifier, &boot_digest_algorithm::identifier);
    attest_trace_as(operation, "0x%04x (", identifier);
    attest_trace_as(operation, "%s", known != std::end(boot_digest_algorithms) ? known->name : "Unknown");
    attest_trace_as(operation, " (%d bytes)) ", digest_size);
}

// The lines of the Spec ID event, up to the first field that its data does not hold.
void dump_spec_id_fields(const char *operation, byte_cursor data)
{
    std::span<const std::byte> stored_signature;
    if (!data.get_bytes(16, stored_signature))
        return;
    char signature[17] = ""; // as stored it need not be terminated
    std::memcpy(signature, stored_signature.data(), stored_signature.size());
    attest_trace_as(operation, "  EfiSpecIDEvent:%16s\n", signature);
    std::uint32_t platform_class = 0;
    if (!data.get_le(platform_class))
        return;
    attest_trace_as(operation, "    Platform Class: %d (%s)\n", static_cast<std::int32_t>(platform_class),
                    platform_class == 0 ? "Client" : "Server");
    std::uint8_t minor = 0;
    std::uint8_t major = 0;
    std::uint8_t errata = 0;
    if (!data.get_le(minor) || !data.get_le(major) || !data.get_le(errata))
        return;
    attest_trace_as(operation, "    Spec Version: %d.%d(%d)\n", major, minor, errata);
    std::uint8_t uintn_size = 0;
    if (!data.get_le(uintn_size))
        return;
    attest_trace_as(operation, "    UINTN Size: %d (%s)\n", uintn_size,
                    uintn_size == 2 ? "UINT64" : "UINT32");
    std::uint32_t algorithms = 0;
    if (!data.get_le(algorithms))
        return;
    attest_trace_as(operation, "    %d Hash Algos: ", static_cast<std::int32_t>(algorithms));
    for (std::uint32_t i = 0; i < algorithms; ++i) {
        std::uint16_t identifier = 0;
        std::uint16_t digest_size = 0;
        if (!data.get_le(identifier) || !data.get_le(digest_size))
            return;
        dump_listed_algorithm(operation, identifier, digest_size);
    }
    std::uint8_t vendor_size = 0;
    std::span<const std::byte> vendor_info;
    if (!data.get_le(vendor_size))
        return;
    attest_trace_as(operation, "\n    Vendor Info Size: %d", vendor_size);
    if (vendor_size != 0 && data.get_bytes(std::min<std::size_t>(vendor_size, data.remaining()), vendor_info))
        dump_hex(vendor_info);
}

} // namespace

const char *event_type_name(std::uint32_t type)
{
    for (const event_type_row &row : event_types) {
        if (row.type == type)
            return row.name;
    }
    return "Unknown";
}

void dump_event_data(const char *operation, const boot_record &record)
{
    if (!trace_flag_enabled(attest_dbg_flag_agent))
        return;
    switch (record.event_type) {
    case EV_EFI_VARIABLE_DRIVER_CONFIG:
    case EV_EFI_VARIABLE_BOOT:
    case EV_EFI_VARIABLE_AUTHORITY:
        dump_uefi_variable(operation, record);
        return;
    case EV_EFI_ACTION:
        attest_trace_as(operation, "  Action: ");
        dump_text(operation, record);
        return;
    case EV_IPL:
        if (!record.crypto_agile)
            break;
        attest_trace_as(operation, "  Description: ");
        dump_text(operation, record);
        return;
    case EV_NO_ACTION:
        if (record.crypto_agile || record.pcr_index != 0)
            break;
        dump_spec_id_fields(operation, byte_cursor(record.event_data));
        attest_trace_as(operation, "\n");
        return;
    default:
        break;
    }
    dump_bytes(operation, record);
}
