// The sizer and the encoder. Both walk a message's table; descriptors.cc makes each table's own copy of the
// walk (message_size, put_message), in which the rows are constants and the switches below cost nothing: a
// walk that reads the table while it runs takes twice the time.
#pragma once

#include <bit>
#include <protozero/varint.hpp>
#include <utility>

#include "platform/message/descriptors.h"
#include "platform/message/utf8.h"

// Inlined into the walks whatever the compiler's own measure says.
#define MESSAGE_WALK [[gnu::always_inline]] inline

// A row as a constant of its own: the compiler does not look into a table that another library could replace.
template <const auto &fields, std::size_t i>
static constexpr field_descriptor row = fields[i];

inline std::uint64_t varint_size(std::uint64_t value)
{
    // 1 + floor((bits - 1) / 7) without a division, for 1 to 64 bits.
    return (static_cast<unsigned>(std::bit_width(value | 1)) * 9 + 64) / 64;
}

// ---- the sizer ----
// Sizes are of a field with its tag, or of a whole message. One above MESSAGE_SIZE_MAX says that it can't be
// encoded, for its size or for what it holds; a sum that has such a part is above it, too.

inline constexpr std::uint64_t UNENCODABLE = MESSAGE_SIZE_MAX + 1;

MESSAGE_WALK std::uint64_t delimited_size(std::uint64_t length)
{
    return 1 + varint_size(length) + length;
}

MESSAGE_WALK std::uint64_t text_size(const field_descriptor &field, const char *text)
{
    if (text == nullptr)
        return UNENCODABLE;
    std::size_t length = std::strlen(text);
    if (field.kind == field_kind::string && !utf8_is_valid(text, length))
        return UNENCODABLE;
    return delimited_size(length);
}

MESSAGE_WALK std::uint64_t bytes_size(const message_bytes &bytes)
{
    // The length is the caller's word: no sum may overflow on it.
    if (bytes.length > MESSAGE_SIZE_MAX || (bytes.data == nullptr && bytes.length != 0))
        return UNENCODABLE;
    return delimited_size(bytes.length);
}

// A list without items takes no bytes.
MESSAGE_WALK std::uint64_t list_size(const field_descriptor &field, const any_list &list)
{
    if (list.count == 0)
        return 0;
    if (list.items == nullptr)
        return UNENCODABLE;
    std::uint64_t size = 0;
    if (field.kind == field_kind::messages) {
        for (std::uint32_t i = 0; i < list.count; ++i)
            size += delimited_size(field.child->size(list_item(list, *field.child, i)));
        return size;
    }
    for (std::uint32_t i = 0; i < list.count; ++i)
        size += varint_size(static_cast<const std::uint32_t *>(list.items)[i]);
    return delimited_size(size);
}

MESSAGE_WALK std::uint64_t field_size(const field_descriptor &field, const void *message)
{
    switch (field.kind) {
    case field_kind::u32:
        return 1 + varint_size(load_member<std::uint32_t>(message, field.offset));
    case field_kind::u64:
        return 1 + varint_size(load_member<std::uint64_t>(message, field.offset));
    case field_kind::string:
    case field_kind::name:
        return text_size(field, load_member<message_text>(message, field.offset));
    case field_kind::bytes:
        return bytes_size(load_member<message_bytes>(message, field.offset));
    case field_kind::messages:
    case field_kind::u32_list:
        return list_size(field, load_member<any_list>(message, field.offset));
    }
    return UNENCODABLE;
}

template <const auto &fields, std::size_t i>
MESSAGE_WALK std::uint64_t row_size(const void *message, std::uint32_t present)
{
    return (present & row<fields, i>.presence) != 0 ? field_size(row<fields, i>, message) : 0;
}

template <const auto &fields, std::size_t... i>
MESSAGE_WALK std::uint64_t rows_size(const void *message, std::index_sequence<i...>)
{
    auto present = load_member<std::uint32_t>(message, 0);
    return (row_size<fields, i>(message, present) + ...);
}

// UNENCODABLE exactly, or at most MESSAGE_SIZE_MAX: so the sum over a list of 2^32 items stays within 64
// bits.
template <const auto &fields>
std::uint64_t message_size(const void *message)
{
    std::uint64_t size = rows_size<fields>(message, std::make_index_sequence<fields.size()>());
    return size <= MESSAGE_SIZE_MAX ? size : UNENCODABLE;
}

// ---- the encoder ----
// It writes from the last byte to the first: the length before a message is known when its turn comes, and no
// size need be kept from the sizer's walk. Every function takes the place before which it writes and gives
// the place where its bytes begin. The room is there and every field can be encoded: the sizer said so.

MESSAGE_WALK char *put_varint(char *end, std::uint64_t value)
{
    if (value < 0x80) {
        *--end = static_cast<char>(value);
        return end;
    }
    char *begin = end - varint_size(value);
    protozero::add_varint_to_buffer(begin, value);
    return begin;
}

MESSAGE_WALK char *put_tag(char *end, const field_descriptor &field)
{
    *--end = static_cast<char>(field.tag);
    return end;
}

// Two words that meet or overlap in the middle.
template <class Word>
void copy_ends(char *to, const char *from, std::size_t length)
{
    Word first;
    Word last;
    std::memcpy(&first, from, sizeof first);
    std::memcpy(&last, from + length - sizeof last, sizeof last);
    std::memcpy(to, &first, sizeof first);
    std::memcpy(to + length - sizeof last, &last, sizeof last);
}

// Digests and algorithm names are too short for the C library's copy to be worth its call.
inline void copy_short(char *to, const char *from, std::size_t length)
{
    if (length > 32)
        std::memcpy(to, from, length);
    else if (length > 16)
        copy_ends<unsigned __int128>(to, from, length);
    else if (length >= 8)
        copy_ends<std::uint64_t>(to, from, length);
    else if (length >= 4)
        copy_ends<std::uint32_t>(to, from, length);
    else if (length >= 2)
        copy_ends<std::uint16_t>(to, from, length);
    else if (length == 1)
        *to = *from;
}

MESSAGE_WALK char *put_delimited(char *end, const field_descriptor &field, const void *bytes,
                                 std::size_t length)
{
    end -= length;
    copy_short(end, static_cast<const char *>(bytes), length);
    return put_tag(put_varint(end, length), field);
}

// Puts the length of what lies from `begin` to `end` before it, and the tag.
MESSAGE_WALK char *close_delimited(char *begin, const char *end, const field_descriptor &field)
{
    return put_tag(put_varint(begin, static_cast<std::uint64_t>(end - begin)), field);
}

MESSAGE_WALK char *put_list(char *end, const field_descriptor &field, const any_list &list)
{
    if (list.count == 0)
        return end;
    if (field.kind == field_kind::messages) {
        for (std::uint32_t i = list.count; i > 0; --i)
            end = close_delimited(field.child->put(end, list_item(list, *field.child, i - 1)), end, field);
        return end;
    }
    char *begin = end;
    for (std::uint32_t i = list.count; i > 0; --i)
        begin = put_varint(begin, static_cast<const std::uint32_t *>(list.items)[i - 1]);
    return close_delimited(begin, end, field);
}

MESSAGE_WALK char *put_field(char *end, const field_descriptor &field, const void *message)
{
    switch (field.kind) {
    case field_kind::u32:
        return put_tag(put_varint(end, load_member<std::uint32_t>(message, field.offset)), field);
    case field_kind::u64:
        return put_tag(put_varint(end, load_member<std::uint64_t>(message, field.offset)), field);
    case field_kind::string:
    case field_kind::name: {
        const char *text = load_member<message_text>(message, field.offset);
        return put_delimited(end, field, text, std::strlen(text));
    }
    case field_kind::bytes: {
        auto bytes = load_member<message_bytes>(message, field.offset);
        return put_delimited(end, field, bytes.data, bytes.length);
    }
    case field_kind::messages:
    case field_kind::u32_list:
        return put_list(end, field, load_member<any_list>(message, field.offset));
    }
    return end;
}

template <const auto &fields, std::size_t i>
MESSAGE_WALK char *put_row(char *end, const void *message, std::uint32_t present)
{
    return (present & row<fields, i>.presence) != 0 ? put_field(end, row<fields, i>, message) : end;
}

template <const auto &fields, std::size_t... i>
MESSAGE_WALK char *put_rows(char *end, const void *message, std::index_sequence<i...>)
{
    auto present = load_member<std::uint32_t>(message, 0);
    ((end = put_row<fields, sizeof...(i) - 1 - i>(end, message, present)), ...);
    return end;
}

template <const auto &fields>
char *put_message(char *end, const void *message)
{
    return put_rows<fields>(end, message, std::make_index_sequence<fields.size()>());
}

#undef MESSAGE_WALK
