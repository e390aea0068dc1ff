#include "attestctl/event_types.h"

#include <array>
#include <string_view>

#include "attestctl/text.h"

namespace {

struct type_row {
    std::uint32_t type;
    std::string_view name;
};

constexpr auto TYPES = std::to_array<type_row>({
    {0x00000000, "EV_PREBOOT_CERT"},
    {event_type::POST_CODE, "EV_POST_CODE"},
    {0x00000002, "EV_UNUSED"},
    {event_type::NO_ACTION, "EV_NO_ACTION"},
    {event_type::SEPARATOR, "EV_SEPARATOR"},
    {0x00000005, "EV_ACTION"},
    {event_type::EVENT_TAG, "EV_EVENT_TAG"},
    {event_type::S_CRTM_CONTENTS, "EV_S_CRTM_CONTENTS"},
    {event_type::S_CRTM_VERSION, "EV_S_CRTM_VERSION"},
    {0x00000009, "EV_CPU_MICROCODE"},
    {0x0000000a, "EV_PLATFORM_CONFIG_FLAGS"},
    {0x0000000b, "EV_TABLE_OF_DEVICES"},
    {0x0000000c, "EV_COMPACT_HASH"},
    {0x0000000d, "EV_IPL"},
    {0x0000000e, "EV_IPL_PARTITION_DATA"},
    {0x0000000f, "EV_NONHOST_CODE"},
    {0x00000010, "EV_NONHOST_CONFIG"},
    {0x00000011, "EV_NONHOST_INFO"},
    {0x00000012, "EV_OMIT_BOOT_DEVICE_EVENTS"},
    {event_type::POST_CODE2, "EV_POST_CODE2"},
    {0x80000000, "EV_EFI_EVENT_BASE"},
    {event_type::EFI_VARIABLE_DRIVER_CONFIG, "EV_EFI_VARIABLE_DRIVER_CONFIG"},
    {event_type::EFI_VARIABLE_BOOT, "EV_EFI_VARIABLE_BOOT"},
    {event_type::EFI_BOOT_SERVICES_APPLICATION, "EV_EFI_BOOT_SERVICES_APPLICATION"},
    {event_type::EFI_BOOT_SERVICES_DRIVER, "EV_EFI_BOOT_SERVICES_DRIVER"},
    {event_type::EFI_RUNTIME_SERVICES_DRIVER, "EV_EFI_RUNTIME_SERVICES_DRIVER"},
    {event_type::EFI_GPT_EVENT, "EV_EFI_GPT_EVENT"},
    {0x80000007, "EV_EFI_ACTION"},
    {event_type::EFI_PLATFORM_FIRMWARE_BLOB, "EV_EFI_PLATFORM_FIRMWARE_BLOB"},
    {event_type::EFI_HANDOFF_TABLES, "EV_EFI_HANDOFF_TABLES"},
    {event_type::EFI_PLATFORM_FIRMWARE_BLOB2, "EV_EFI_PLATFORM_FIRMWARE_BLOB2"},
    {event_type::EFI_HANDOFF_TABLES2, "EV_EFI_HANDOFF_TABLES2"},
    {event_type::EFI_VARIABLE_BOOT2, "EV_EFI_VARIABLE_BOOT2"},
    {event_type::EFI_GPT_EVENT2, "EV_EFI_GPT_EVENT2"},
    {0x80000010, "EV_EFI_HCRTM_EVENT"},
    {event_type::EFI_VARIABLE_AUTHORITY, "EV_EFI_VARIABLE_AUTHORITY"},
    {0x800000e1, "EV_EFI_SPDM_FIRMWARE_BLOB"},
    {0x800000e2, "EV_EFI_SPDM_FIRMWARE_CONFIG"},
    {0x800000e3, "EV_EFI_SPDM_DEVICE_POLICY"},
    {0x800000e4, "EV_EFI_SPDM_DEVICE_AUTHORITY"},
});

} // namespace

std::string event_type_text(std::uint32_t type)
{
    for (const type_row &row : TYPES)
        if (row.type == type)
            return std::string(row.name);
    return format("0x%08x", type);
}
