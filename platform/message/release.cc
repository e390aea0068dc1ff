#include "platform/message/descriptors.h"

#include <cstdlib>

void message_release(const message_descriptor &descriptor, void *message)
{
    for (const field_descriptor &field : descriptor.fields) {
        switch (field.kind) {
        case field_kind::u32:
        case field_kind::u64:
            break;
        case field_kind::string:
        case field_kind::name:
        case field_kind::bytes:
            static_assert(offsetof(message_bytes, data) == 0);
            std::free(load_member<void *>(message, field.offset));
            break;
        case field_kind::messages: {
            auto list = load_member<any_list>(message, field.offset);
            for (std::uint32_t i = 0; list.items != nullptr && i < list.count; ++i)
                message_release(*field.child, list_item(list, *field.child, i));
            std::free(list.items);
            break;
        }
        case field_kind::u32_list:
            std::free(load_member<any_list>(message, field.offset).items);
            break;
        }
    }
    std::memset(message, 0, descriptor.structure_size);
}

bool message_copy_bytes(std::span<const std::byte> bytes, message_bytes &copy)
{
    copy = {nullptr, 0};
    if (bytes.empty())
        return true;
    copy.data = static_cast<std::uint8_t *>(std::malloc(bytes.size()));
    if (copy.data == nullptr)
        return false;
    std::memcpy(copy.data, bytes.data(), bytes.size());
    copy.length = bytes.size();
    return true;
}
