// One record of the kernel's binary measurement list, as it lies in the file. Integers are unsigned, 32 bits
// wide, in the host's byte order.
//
//   every template but "ima"                      template "ima"
//    0   4  PCR index                              0   4  PCR index
//    4  20  template hash                          4  20  template hash
//   24   4  template name length L                24   4  template name length L (3)
//   28   L  template name, no NUL                 28   L  "ima"
//    .   4  template data length D                 .  20  file digest, SHA-1
//    .   D  template data: fields, each            .   4  file name length N
//           a length and that many bytes           .   N  file name
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr std::size_t IMA_TEMPLATE_HASH_SIZE = 20;
inline constexpr std::size_t IMA_RECORD_HEADER_SIZE = 28; // read as one unit
static_assert(IMA_RECORD_HEADER_SIZE == sizeof(std::uint32_t) * 2 + IMA_TEMPLATE_HASH_SIZE);

inline constexpr std::uint32_t IMA_TEMPLATE_NAME_MAX = 255;

// The digest of the "d" field: SHA-1, wherever the field stands.
inline constexpr std::size_t IMA_DIGEST_SIZE = 20;
// The longest "n" field, and the name area of an "ima" record.
inline constexpr std::uint32_t IMA_EVENT_NAME_MAX = 256;
// The template data of an "ima" record once it is read: the digest, then the name area, zero behind the name.
inline constexpr std::size_t IMA_TEMPLATE_DATA_SIZE = IMA_DIGEST_SIZE + IMA_EVENT_NAME_MAX;
// The longest algorithm name of a "d-ng" field.
inline constexpr std::size_t IMA_ALGORITHM_NAME_MAX = 64;

// The kernel's own fields are a path and a signature or file digest each, some kilobytes. The file has no
// size to compare with, so a length beyond this is refused before memory is got for it.
inline constexpr std::uint32_t IMA_TEMPLATE_DATA_MAX = 16u << 20;

inline constexpr std::string_view IMA_TEMPLATE_IMA = "ima";
inline constexpr char IMA_FIELD_SEPARATOR = '|';

struct ima_template {
    std::string_view name;
    std::string_view field_list; // field ids with IMA_FIELD_SEPARATOR between them
};

// Searched in this order; a name that is in no row is its own field list.
inline constexpr std::array<ima_template, 3> ima_template_table = {{
    {IMA_TEMPLATE_IMA, "d|n"},
    {"ima-ng", "d-ng|n-ng"},
    {"ima-sig", "d-ng|n-ng|sig"},
}};
