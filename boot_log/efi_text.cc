#include "boot_log/efi_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/byte_cursor.h"

const char *guid_to_string(std::span<const std::byte, 16> guid)
{
    static char text[37];
    byte_cursor fields(guid);
    std::uint32_t first = 0;
    std::uint16_t second = 0;
    std::uint16_t third = 0;
    unsigned char rest[8] = {};
    if (fields.get_le(first) && fields.get_le(second) && fields.get_le(third))
        std::memcpy(rest, guid.data() + fields.position(), sizeof rest);
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", first, second, third,
                  rest[0], rest[1], rest[2], rest[3], rest[4], rest[5], rest[6], rest[7]);
    return text;
}

const char *unicode_name_to_string(const std::byte *chars, std::uint64_t count)
{
    static char text[100];
    std::fill(std::begin(text), std::end(text), '\0');
    std::uint64_t shown = std::min<std::uint64_t>(count, sizeof text - 1);
    for (std::uint64_t i = 0; i < shown; ++i)
        text[i] = static_cast<char>(chars[2 * i]);
    return text;
}
