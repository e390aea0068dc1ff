#include "platform/message/descriptors.h"
#include "platform/message/utf8.h"
#include "platform/message/wire.h"

#include <array>
#include <cstdlib>

namespace {

// Items that were counted and allocated for each list, by field index.
using list_rooms = std::array<std::uint32_t, FIELD_NUMBER_MAX>;
constexpr std::uint32_t NOT_COUNTED = 0xFFFFFFFF;

// The tag of an item of a list of numbers that is not packed.
bool is_single_number(const field_descriptor &field, std::uint32_t tag)
{
    return field.kind == field_kind::u32_list &&
           tag == (std::uint32_t{field.number} << 3 | static_cast<std::uint32_t>(wire_type::varint));
}

std::uint32_t varints_in(const wire_input &packed)
{
    std::uint32_t count = 0;
    for (const char *at = packed.at; at != packed.end; ++at)
        count += static_cast<signed char>(*at) >= 0;
    return count;
}

// Items of a list field from here to the end of its message; `input` stands behind the first one's tag.
// Counted before they are decoded, so that a list is allocated once and exactly: hostile bytes get no more
// memory than items they spell out.
bool count_items(wire_input input, const field_descriptor &field, std::uint32_t tag, std::uint32_t &count)
{
    count = 0;
    for (;;) {
        wire_input content{};
        if (tag == field.tag) {
            if (!get_delimited(input, content))
                return false;
            count += field.kind == field_kind::messages ? 1 : varints_in(content);
        } else {
            count += is_single_number(field, tag);
            if (!skip_field(input, tag))
                return false;
        }
        if (input.at == input.end)
            return true;
        if (!get_tag(input, tag))
            return false;
    }
}

// At the first item of a list: counts them all and allocates. An empty list is counted once, too: runs
// without numbers must not make the decoder look through the rest of the message each time.
// `budget` is the memory that lists may still take.
bool reserve_items(const wire_input &input, const field_descriptor &field, std::uint32_t tag, void *message,
                   std::uint32_t &room, std::uint64_t &budget)
{
    if (room != NOT_COUNTED)
        return true;
    if (!count_items(input, field, tag, room))
        return false;
    if (room == 0)
        return true;
    std::size_t item_size =
        field.kind == field_kind::messages ? field.child->structure_size : sizeof(std::uint32_t);
    if (std::uint64_t{room} * item_size > budget)
        return false;
    budget -= std::uint64_t{room} * item_size;
    any_list list{std::calloc(room, item_size), 0};
    store_member(message, field.offset, list);
    return list.items != nullptr;
}

bool decode_message(const message_descriptor &descriptor, wire_input input, void *message,
                    std::uint64_t &budget);

// The bytes as a heap copy, NUL-terminated when they are a text. A NUL among them ends the text.
bool decode_text(const field_descriptor &field, const wire_input &content, void *message)
{
    if (field.kind == field_kind::string && !utf8_is_valid(content.at, content.left()))
        return false;
    auto *text = static_cast<char *>(std::malloc(content.left() + 1));
    if (text == nullptr)
        return false;
    std::memcpy(text, content.at, content.left());
    text[content.left()] = '\0';
    std::free(load_member<message_text>(message, field.offset));
    store_member<message_text>(message, field.offset, text);
    return true;
}

bool decode_bytes(const field_descriptor &field, const wire_input &content, void *message)
{
    message_bytes bytes{nullptr, content.left()};
    if (bytes.length != 0) {
        bytes.data = static_cast<std::uint8_t *>(std::malloc(bytes.length));
        if (bytes.data == nullptr)
            return false;
        std::memcpy(bytes.data, content.at, bytes.length);
    }
    std::free(load_member<message_bytes>(message, field.offset).data);
    store_member(message, field.offset, bytes);
    return true;
}

bool decode_child(const field_descriptor &field, std::uint32_t room, wire_input &input, void *message,
                  std::uint64_t &budget)
{
    auto list = load_member<any_list>(message, field.offset);
    wire_input content{};
    if (list.count == room || !get_delimited(input, content))
        return false;
    // Counted before it is filled: what a failure leaves in it is released with the list.
    void *item = list_item(list, *field.child, list.count++);
    store_member(message, field.offset, list);
    return decode_message(*field.child, content, item, budget);
}

// All of `numbers`, or the first of them.
bool append_numbers(wire_input &numbers, bool all, any_list &list, std::uint32_t room)
{
    std::uint64_t value = 0;
    while (numbers.at != numbers.end) {
        if (list.count == room || !get_varint(numbers, value))
            return false;
        static_cast<std::uint32_t *>(list.items)[list.count++] = static_cast<std::uint32_t>(value);
        if (!all)
            return true;
    }
    return all;
}

bool decode_numbers(const field_descriptor &field, std::uint32_t tag, std::uint32_t room, wire_input &input,
                    void *message)
{
    auto list = load_member<any_list>(message, field.offset);
    bool packed = tag == field.tag;
    wire_input content{};
    if (packed && !get_delimited(input, content))
        return false;
    bool good = append_numbers(packed ? content : input, packed, list, room);
    store_member(message, field.offset, list);
    return good;
}

bool decode_field(const field_descriptor &field, std::uint32_t tag, std::uint32_t &room, wire_input &input,
                  void *message, std::uint64_t &budget)
{
    wire_input content{};
    std::uint64_t value = 0;
    switch (field.kind) {
    case field_kind::u32:
        if (!get_varint(input, value))
            return false;
        store_member(message, field.offset, static_cast<std::uint32_t>(value));
        return true;
    case field_kind::u64:
        if (!get_varint(input, value))
            return false;
        store_member(message, field.offset, value);
        return true;
    case field_kind::string:
    case field_kind::name:
        return get_delimited(input, content) && decode_text(field, content, message);
    case field_kind::bytes:
        return get_delimited(input, content) && decode_bytes(field, content, message);
    case field_kind::messages:
        return reserve_items(input, field, tag, message, room, budget) &&
               decode_child(field, room, input, message, budget);
    case field_kind::u32_list:
        return reserve_items(input, field, tag, message, room, budget) &&
               decode_numbers(field, tag, room, input, message);
    }
    return false;
}

// The field that the tag stands for; null for one that is to be skipped, also a known field in another wire
// type.
const field_descriptor *field_of_tag(const message_descriptor &descriptor, std::uint32_t tag)
{
    std::uint32_t index = (tag >> 3) - 1;
    if (index >= descriptor.fields.size())
        return nullptr;
    const field_descriptor &field = descriptor.fields[index];
    return tag == field.tag || is_single_number(field, tag) ? &field : nullptr;
}

// `message` is empty before; after a false it holds what was decoded until then, in a state that release
// takes. It calls itself as deep as the tables nest, whatever the bytes say.
bool decode_message(const message_descriptor &descriptor, wire_input input, void *message,
                    std::uint64_t &budget)
{
    list_rooms rooms;
    rooms.fill(NOT_COUNTED);
    std::uint32_t present = 0;
    while (input.at != input.end) {
        std::uint32_t tag = 0;
        if (!get_tag(input, tag))
            return false;
        const field_descriptor *field = field_of_tag(descriptor, tag);
        if (field == nullptr) {
            if (!skip_field(input, tag))
                return false;
            continue;
        }
        std::uint32_t &room = rooms[field->number - 1u];
        if (!decode_field(*field, tag, room, input, message, budget))
            return false;
        if (room != 0) // no list, or one that has items
            present |= field->presence;
    }
    store_member(message, 0, present);
    return true;
}

} // namespace

bool message_decode(const message_descriptor &descriptor, std::span<const std::byte> bytes, void *message,
                    std::uint64_t list_memory)
{
    std::memset(message, 0, descriptor.structure_size);
    const char *begin = reinterpret_cast<const char *>(bytes.data());
    if (bytes.size() > MESSAGE_SIZE_MAX)
        return false;
    if (!decode_message(descriptor, {begin, begin + bytes.size()}, message, list_memory)) {
        message_release(descriptor, message);
        return false;
    }
    return true;
}
