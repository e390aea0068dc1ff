#include "platform/message/descriptors.h"
#include "platform/message/utf8.h"
#include "platform/message/wire.h"

namespace {

std::uint64_t varint_size(std::uint64_t value)
{
    return static_cast<std::uint64_t>(protozero::length_of_varint(value));
}

// ---- the sizer ----

bool message_size(const message_descriptor &descriptor, const void *message, std::uint64_t &size);

std::uint64_t packed_size(const any_list &list)
{
    std::uint64_t size = 0;
    for (std::uint32_t i = 0; i < list.count; ++i)
        size += varint_size(static_cast<const std::uint32_t *>(list.items)[i]);
    return size;
}

bool messages_size(const any_list &list, const message_descriptor &child, std::uint64_t &size)
{
    size = 0;
    for (std::uint32_t i = 0; i < list.count; ++i) {
        std::uint64_t item_size = 0;
        if (!message_size(child, list_item(list, child, i), item_size))
            return false;
        size += 1 + varint_size(item_size) + item_size;
    }
    return true;
}

// Bytes of a list field with its tags; a list without items takes none.
bool list_size(const field_descriptor &field, const any_list &list, std::uint64_t &size)
{
    size = 0;
    if (list.count == 0)
        return true;
    if (list.items == nullptr)
        return false;
    if (field.kind == field_kind::messages)
        return messages_size(list, *field.child, size);
    std::uint64_t content = packed_size(list);
    size = 1 + varint_size(content) + content;
    return true;
}

// Bytes of a present field with its tag; false when it can't be encoded.
bool field_size(const field_descriptor &field, const void *message, std::uint64_t &size)
{
    switch (field.kind) {
    case field_kind::u32:
        size = 1 + varint_size(load_member<std::uint32_t>(message, field.offset));
        return true;
    case field_kind::u64:
        size = 1 + varint_size(load_member<std::uint64_t>(message, field.offset));
        return true;
    case field_kind::string:
    case field_kind::name: {
        const char *text = load_member<message_text>(message, field.offset);
        if (text == nullptr)
            return false;
        std::size_t length = std::strlen(text);
        size = 1 + varint_size(length) + length;
        return field.kind == field_kind::name || utf8_is_valid(text, length);
    }
    case field_kind::bytes: {
        auto bytes = load_member<message_bytes>(message, field.offset);
        // The length is the caller's word: no sum may overflow on it.
        if (bytes.length > MESSAGE_SIZE_MAX || (bytes.data == nullptr && bytes.length != 0))
            return false;
        size = 1 + varint_size(bytes.length) + bytes.length;
        return true;
    }
    case field_kind::messages:
    case field_kind::u32_list:
        return list_size(field, load_member<any_list>(message, field.offset), size);
    }
    return false;
}

bool message_size(const message_descriptor &descriptor, const void *message, std::uint64_t &size)
{
    auto present = load_member<std::uint32_t>(message, 0);
    size = 0;
    for (const field_descriptor &field : descriptor.fields) {
        if ((present & field.presence) == 0)
            continue;
        std::uint64_t bytes = 0;
        if (!field_size(field, message, bytes))
            return false;
        size += bytes;
    }
    // Checked at every level, so that the sum over a list of 2^32 items stays within 64 bits.
    return size <= MESSAGE_SIZE_MAX;
}

// ---- the encoder ----
// It writes from the last byte to the first: the length before a message is then known when its turn comes,
// and sizes need not be kept from the sizer's walk. Every function takes the place before which it writes and
// gives the place where its bytes begin. The room is there and every field can be encoded: the sizer said so.

char *put_varint(char *end, std::uint64_t value)
{
    char *begin = end - varint_size(value);
    protozero::add_varint_to_buffer(begin, value);
    return begin;
}

char *put_tag(char *end, const field_descriptor &field)
{
    *--end = static_cast<char>(field.tag);
    return end;
}

char *put_delimited(char *end, const field_descriptor &field, const void *bytes, std::size_t length)
{
    end -= length;
    if (length != 0)
        std::memcpy(end, bytes, length);
    return put_tag(put_varint(end, length), field);
}

char *put_message(char *end, const message_descriptor &descriptor, const void *message);

char *put_messages(char *end, const field_descriptor &field, const any_list &list)
{
    for (std::uint32_t i = list.count; i > 0; --i) {
        char *begin = put_message(end, *field.child, list_item(list, *field.child, i - 1));
        end = put_tag(put_varint(begin, static_cast<std::uint64_t>(end - begin)), field);
    }
    return end;
}

char *put_packed(char *end, const field_descriptor &field, const any_list &list)
{
    if (list.count == 0)
        return end;
    char *begin = end;
    for (std::uint32_t i = list.count; i > 0; --i)
        begin = put_varint(begin, static_cast<const std::uint32_t *>(list.items)[i - 1]);
    return put_tag(put_varint(begin, static_cast<std::uint64_t>(end - begin)), field);
}

char *put_field(char *end, const field_descriptor &field, const void *message)
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
        return put_messages(end, field, load_member<any_list>(message, field.offset));
    case field_kind::u32_list:
        return put_packed(end, field, load_member<any_list>(message, field.offset));
    }
    return end;
}

char *put_message(char *end, const message_descriptor &descriptor, const void *message)
{
    auto present = load_member<std::uint32_t>(message, 0);
    for (std::size_t i = descriptor.fields.size(); i > 0; --i) {
        const field_descriptor &field = descriptor.fields[i - 1];
        if ((present & field.presence) != 0)
            end = put_field(end, field, message);
    }
    return end;
}

} // namespace

std::int64_t message_encoded_size(const message_descriptor &descriptor, const void *message)
{
    std::uint64_t size = 0;
    return message_size(descriptor, message, size) ? static_cast<std::int64_t>(size) : -1;
}

std::int64_t message_encode(const message_descriptor &descriptor, const void *message,
                            std::span<std::byte> out)
{
    std::int64_t size = message_encoded_size(descriptor, message);
    if (size < 0 || static_cast<std::uint64_t>(size) > out.size())
        return size;
    put_message(reinterpret_cast<char *>(out.data()) + size, descriptor, message);
    return size;
}
