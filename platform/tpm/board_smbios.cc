#include "platform/tpm/board_smbios.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

#include "platform/byte_cursor.h"
#include "platform/tpm/manifest.h"

namespace {

// Offsets are those of the SMBIOS reference specification (DSP0134), from the start of the structure.
struct field {
    const char *place;
    const char *name;
    std::uint8_t type;
    std::uint8_t offset;
    std::uint8_t bytes; // 0: a string number, else that many bytes as they are
};
constexpr field fields[] = {
    {"system", "serial", 1, 0x07, 0},  {"system", "uuid", 1, 0x08, 16}, {"baseboard", "serial", 2, 0x07, 0},
    {"chassis", "serial", 3, 0x07, 0}, {"processor", "id", 4, 0x08, 8}, {"processor", "serial", 4, 0x20, 0},
    {"memory", "serial", 17, 0x18, 0},
};

constexpr std::uint8_t END_OF_TABLE = 127;

struct structure {
    std::uint8_t type;
    std::span<const std::byte> formatted; // header included
    std::vector<std::string> strings;
};

// The strings after the formatted area: each ends in NUL, the set in one more; an empty set is two NULs.
bool read_strings(byte_cursor &cursor, std::vector<std::string> &strings)
{
    std::string text;
    std::uint8_t byte = 0;
    while (cursor.get_le(byte)) {
        if (byte != 0) {
            text += static_cast<char>(byte);
        } else if (text.empty()) {
            return !strings.empty() || cursor.skip(1);
        } else {
            strings.push_back(std::move(text));
            text.clear();
        }
    }
    return false;
}

bool read_structure(std::span<const std::byte> table, byte_cursor &cursor, structure &read)
{
    constexpr std::size_t header_size = 4;
    const std::size_t start = cursor.position();
    std::uint8_t length = 0;
    if (!cursor.get_le(read.type) || !cursor.get_le(length) || length < header_size ||
        !cursor.skip(length - 2u))
        return false;
    read.formatted = table.subspan(start, length);
    read.strings.clear();
    return read_strings(cursor, read.strings);
}

// Empty when the structure is too old to have the field, or the board's maker did not fill it.
std::string field_value(const structure &from, const field &wanted)
{
    const std::size_t width = std::max<std::size_t>(wanted.bytes, 1);
    if (from.formatted.size() < wanted.offset + width)
        return {};
    const auto bytes = from.formatted.subspan(wanted.offset, width);
    if (wanted.bytes == 0) {
        const auto number = std::to_integer<std::size_t>(bytes[0]);
        return number == 0 || number > from.strings.size() ? std::string() : from.strings[number - 1];
    }
    if (std::all_of(bytes.begin(), bytes.end(), [](std::byte byte) { return byte == std::byte{0}; }))
        return {};
    return hex_text(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
}

} // namespace

void smbios_identifiers(std::span<const std::byte> table, std::vector<board_identifier> &identifiers)
{
    std::array<unsigned, 256>
        seen{}; // structures of a type: its slots keep their numbers when they are empty
    byte_cursor cursor(table);
    structure one;
    while (read_structure(table, cursor, one) && one.type != END_OF_TABLE) {
        const unsigned ordinal = seen[one.type]++;
        for (const field &wanted : fields) {
            if (wanted.type != one.type)
                continue;
            identifiers.push_back(
                {std::string("smbios/") + wanted.place + "/" + std::to_string(ordinal) + "/" + wanted.name,
                 field_value(one, wanted)});
        }
    }
}
