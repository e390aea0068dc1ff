// What the encoder, the sizer, the decoder and release know about a message: one table a message, one row a
// field. A new field or message is a row or a table in descriptors.cc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>

#include "platform/messages.h"

enum class field_kind : std::uint8_t {
    u32,
    u64,
    string, // a text that is `string` on the wire: UTF-8
    name,   // a text that is `bytes` on the wire: any bytes but NUL
    bytes,
    messages, // a list of messages
    u32_list, // written packed, read packed or not
};

inline constexpr std::uint8_t FIELD_NUMBER_MAX = 15; // so that every tag is one byte

struct field_descriptor {
    const char *name;
    const message_descriptor *child; // of a list of messages, else null
    std::uint32_t presence;          // the one bit of `present` that stands for the field
    std::uint16_t offset;            // in the structure
    std::uint16_t size;              // of the member
    field_kind kind;
    std::uint8_t number; // on the wire
    std::uint8_t tag;    // on the wire: number and wire type; one byte, as all numbers are below 16
};

// Every structure begins with its word of presence bits, at offset 0. Field i of the table has bit i of that
// word and number i + 1 on the wire.
struct message_descriptor {
    const char *name;
    std::size_t structure_size;
    std::span<const field_descriptor> fields;
    // The table's own walks of the sizer and the encoder; encode.h says what they give.
    std::uint64_t (*size)(const void *message);
    char *(*put)(char *end, const void *message);
};

// The wire form counts in 31 bits.
inline constexpr std::uint64_t MESSAGE_SIZE_MAX = std::numeric_limits<std::int32_t>::max();

// Any message_list, whatever it lists.
struct any_list {
    void *items;
    std::uint32_t count;
};

// Members are read and written as bytes: the types of list items are not known here.
template <class T>
T load_member(const void *message, std::size_t offset)
{
    T value;
    std::memcpy(&value, static_cast<const std::byte *>(message) + offset, sizeof value);
    return value;
}

template <class T>
void store_member(void *message, std::size_t offset, const T &value)
{
    std::memcpy(static_cast<std::byte *>(message) + offset, &value, sizeof value);
}

inline const void *list_item(const any_list &list, const message_descriptor &child, std::size_t index)
{
    return static_cast<const std::byte *>(list.items) + index * child.structure_size;
}

inline void *list_item(any_list &list, const message_descriptor &child, std::size_t index)
{
    return static_cast<std::byte *>(list.items) + index * child.structure_size;
}
