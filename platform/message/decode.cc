#include "platform/message/descriptors.h"
#include "platform/message/utf8.h"
#include "platform/message/wire.h"

#include <array>
#include <cstdlib>

namespace {

// Lists whose items are counted, by field index: what was allocated for them.
using list_rooms = std::array<std::uint32_t, 15>;

// The wire type in which a field is read, apart from a list of numbers, which has two.
bool is_packed_or_not(const field_descriptor &field, std::uint32_t tag)
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
            count += is_packed_or_not(field, tag);
            if (!skip_field(input, tag))
                return false;
        }
        if (input.at == input.end)
            return true;
        if (!get_tag(input, tag))
            return false;
    }
}

bool reserve_items(const wire_input &input, const field_descriptor &field, std::uint32_t tag, any_list &list,
                   std::uint32_t &room)
{
    if (list.items != nullptr)
        return true;
    if (!count_items(input, field, tag, room))
        return false;
    if (room == 0)
        return true;
    list.items =
        std::calloc(room, field.kind == field_kind::messages ? field.child->size : sizeof(std::uint32_t));
    return list.items != nullptr;
}

bool decode_message(const message_descriptor &descriptor, wire_input input, void *message);

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

bool append_number(any_list &list, std::uint32_t room, wire_input &input)
{
    std::uint64_t value = 0;
    if (list.count == room || !get_varint(input, value))
        return false;
    static_cast<std::uint32_t *>(list.items)[list.count++] = static_cast<std::uint32_t>(value);
    return true;
}

// One element of a list of messages, or one or several of a list of numbers.
bool decode_item(const field_descriptor &field, std::uint32_t tag, std::uint32_t &room, wire_input &input,
                 void *message)
{
    auto list = load_member<any_list>(message, field.offset);
    if (!reserve_items(input, field, tag, list, room))
        return false;
    store_member(message, field.offset, list);
    bool good = true;
    wire_input content{};
    if (tag != field.tag) {
        good = append_number(list, room, input);
    } else if (!get_delimited(input, content)) {
        return false;
    } else if (field.kind == field_kind::u32_list) {
        while (good && content.at != content.end)
            good = append_number(list, room, content);
    } else {
        good = list.count < room;
        if (good) {
            ++list.count;
            store_member(message, field.offset, list);
            return decode_message(*field.child, content, list_item(list, *field.child, list.count - 1));
        }
    }
    store_member(message, field.offset, list);
    return good;
}

bool decode_field(const field_descriptor &field, wire_input &input, void *message)
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
    case field_kind::u32_list:
        break;
    }
    return false;
}

// `message` is empty before; after a false it holds what was decoded until then, in a state that release
// takes. It calls itself as deep as the tables nest, whatever the bytes say.
bool decode_message(const message_descriptor &descriptor, wire_input input, void *message)
{
    list_rooms rooms{};
    std::uint32_t present = 0;
    while (input.at != input.end) {
        std::uint32_t tag = 0;
        if (!get_tag(input, tag))
            return false;
        std::uint32_t index = (tag >> 3) - 1;
        const field_descriptor *field =
            index < descriptor.fields.size() ? &descriptor.fields[index] : nullptr;
        if (field == nullptr || (tag != field->tag && !is_packed_or_not(*field, tag))) {
            if (!skip_field(input, tag))
                return false;
            continue;
        }
        bool list = field->kind == field_kind::messages || field->kind == field_kind::u32_list;
        if (!(list ? decode_item(*field, tag, rooms[index], input, message)
                   : decode_field(*field, input, message)))
            return false;
        if (!list || load_member<any_list>(message, field->offset).count != 0)
            present |= field->presence;
    }
    store_member(message, 0, present);
    return true;
}

} // namespace

bool message_decode(const message_descriptor &descriptor, std::span<const std::byte> bytes, void *message)
{
    std::memset(message, 0, descriptor.size);
    const char *begin = reinterpret_cast<const char *>(bytes.data());
    if (bytes.size() > MESSAGE_SIZE_MAX)
        return false;
    if (!decode_message(descriptor, {begin, begin + bytes.size()}, message)) {
        message_release(descriptor, message);
        return false;
    }
    return true;
}
