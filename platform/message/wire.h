// Reading protobuf's wire form: the few things that messages consist of. Every function takes what it reads
// off `input`, never past its end, and says whether it was there and well-formed; after a false, `input` has
// no meaning. Limits are those of protobuf's own parsers, so that the same bytes are refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <protozero/varint.hpp>

struct wire_input {
    const char *at;
    const char *end;

    std::size_t left() const { return static_cast<std::size_t>(end - at); }
};

enum class wire_type : std::uint32_t {
    varint = 0,
    fixed64 = 1,
    length_delimited = 2,
    group_start = 3,
    group_end = 4,
    fixed32 = 5
};

inline constexpr std::size_t VARINT_BYTES_MAX = 10;
inline constexpr std::size_t TAG_BYTES_MAX = 5;
// Groups that stand in one another, all of them unknown: this contract has none.
inline constexpr std::size_t GROUP_DEPTH_MAX = 100;

inline wire_type type_of_tag(std::uint32_t tag)
{
    return static_cast<wire_type>(tag & 7);
}

// A varint of two bytes or more, at most `bytes_max`.
bool get_long_varint(wire_input &input, std::size_t bytes_max, std::uint64_t &value);

inline bool get_varint(wire_input &input, std::uint64_t &value, std::size_t bytes_max = VARINT_BYTES_MAX)
{
    if (input.at != input.end && static_cast<signed char>(*input.at) >= 0) {
        value = static_cast<unsigned char>(*input.at++);
        return true;
    }
    return get_long_varint(input, bytes_max, value);
}

inline bool get_tag(wire_input &input, std::uint32_t &tag)
{
    std::uint64_t value = 0;
    if (!get_varint(input, value, TAG_BYTES_MAX))
        return false;
    tag = static_cast<std::uint32_t>(value);
    return true;
}

// A length and the bytes it counts.
inline bool get_delimited(wire_input &input, wire_input &content)
{
    std::uint64_t length = 0;
    if (!get_varint(input, length, TAG_BYTES_MAX) || length > input.left())
        return false;
    content = {input.at, input.at + length};
    input.at += length;
    return true;
}

// Skips the field whose tag was just read. False also for what has no field number, or ends a group that was
// not begun.
bool skip_field(wire_input &input, std::uint32_t tag);
