// The event types of the TCG PC Client Platform Firmware Profile.
#pragma once

#include <cstdint>
#include <string>

namespace event_type {
inline constexpr std::uint32_t POST_CODE = 0x00000001;
inline constexpr std::uint32_t NO_ACTION = 0x00000003;
inline constexpr std::uint32_t SEPARATOR = 0x00000004;
inline constexpr std::uint32_t EVENT_TAG = 0x00000006;
inline constexpr std::uint32_t S_CRTM_CONTENTS = 0x00000007;
inline constexpr std::uint32_t S_CRTM_VERSION = 0x00000008;
inline constexpr std::uint32_t POST_CODE2 = 0x00000013;
inline constexpr std::uint32_t EFI_VARIABLE_DRIVER_CONFIG = 0x80000001;
inline constexpr std::uint32_t EFI_VARIABLE_BOOT = 0x80000002;
inline constexpr std::uint32_t EFI_BOOT_SERVICES_APPLICATION = 0x80000003;
inline constexpr std::uint32_t EFI_BOOT_SERVICES_DRIVER = 0x80000004;
inline constexpr std::uint32_t EFI_RUNTIME_SERVICES_DRIVER = 0x80000005;
inline constexpr std::uint32_t EFI_GPT_EVENT = 0x80000006;
inline constexpr std::uint32_t EFI_PLATFORM_FIRMWARE_BLOB = 0x80000008;
inline constexpr std::uint32_t EFI_HANDOFF_TABLES = 0x80000009;
inline constexpr std::uint32_t EFI_PLATFORM_FIRMWARE_BLOB2 = 0x8000000a;
inline constexpr std::uint32_t EFI_HANDOFF_TABLES2 = 0x8000000b;
inline constexpr std::uint32_t EFI_VARIABLE_BOOT2 = 0x8000000c;
inline constexpr std::uint32_t EFI_GPT_EVENT2 = 0x8000000d;
inline constexpr std::uint32_t EFI_VARIABLE_AUTHORITY = 0x800000e0;
} // namespace event_type

// "EV_SEPARATOR"; a type without a name as "0x000000ff".
std::string event_type_text(std::uint32_t type);
