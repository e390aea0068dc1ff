#include "platform/message/wire.h"

#include <algorithm>
#include <array>

bool get_long_varint(wire_input &input, std::size_t bytes_max, std::uint64_t &value)
{
    std::size_t limit = std::min(input.left(), bytes_max);
    std::size_t last = 0;
    while (last < limit && static_cast<signed char>(input.at[last]) < 0)
        ++last;
    if (last == limit)
        return false;
    // The varint ends within its limits: decode_varint has nothing to throw.
    value = protozero::decode_varint(&input.at, input.end);
    return true;
}

namespace {

bool skip_bytes(wire_input &input, std::size_t count)
{
    if (input.left() < count)
        return false;
    input.at += count;
    return true;
}

// Skips to the end of the group whose start tag was just read.
bool skip_group(wire_input &input, std::uint32_t start_tag)
{
    std::array<std::uint32_t, GROUP_DEPTH_MAX> open;
    std::size_t depth = 0;
    open[depth++] = start_tag >> 3;
    while (depth > 0) {
        std::uint32_t tag = 0;
        if (!get_tag(input, tag))
            return false;
        if (type_of_tag(tag) == wire_type::group_end) {
            if (tag >> 3 != open[--depth])
                return false;
        } else if (type_of_tag(tag) == wire_type::group_start) {
            if (depth == open.size() || tag >> 3 == 0)
                return false;
            open[depth++] = tag >> 3;
        } else if (!skip_field(input, tag)) {
            return false;
        }
    }
    return true;
}

} // namespace

bool skip_field(wire_input &input, std::uint32_t tag)
{
    if (tag >> 3 == 0)
        return false;
    switch (type_of_tag(tag)) {
    case wire_type::varint: {
        std::uint64_t ignored = 0;
        return get_varint(input, ignored);
    }
    case wire_type::fixed64:
        return skip_bytes(input, 8);
    case wire_type::length_delimited: {
        wire_input ignored{};
        return get_delimited(input, ignored);
    }
    case wire_type::group_start:
        return skip_group(input, tag);
    case wire_type::fixed32:
        return skip_bytes(input, 4);
    case wire_type::group_end:
        return false;
    }
    return false;
}
