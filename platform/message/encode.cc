#include "platform/message/descriptors.h"

std::int64_t message_encoded_size(const message_descriptor &descriptor, const void *message)
{
    std::uint64_t size = descriptor.size(message);
    return size <= MESSAGE_SIZE_MAX ? static_cast<std::int64_t>(size) : -1;
}

std::int64_t message_encode(const message_descriptor &descriptor, const void *message,
                            std::span<std::byte> out)
{
    std::int64_t size = message_encoded_size(descriptor, message);
    if (size >= 0 && static_cast<std::uint64_t>(size) <= out.size())
        descriptor.put(reinterpret_cast<char *>(out.data()) + size, message);
    return size;
}
