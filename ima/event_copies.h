// Heap copies that an event owns. A list may name a field twice: what the event had there is freed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/messages.h"

// The text with a NUL behind it, to be freed; null without memory.
inline char *duplicate_text(std::string_view text)
{
    char *copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// Hands a heap text over to the event's field.
inline void give_text(IMA_EVENT *event, std::uint32_t presence, message_text &field, char *text)
{
    if ((event->present & presence) != 0)
        std::free(field);
    field = text;
    event->present |= presence;
}

// False without memory, with the field unchanged.
[[nodiscard]] inline bool copy_text(IMA_EVENT *event, std::uint32_t presence, message_text &field,
                                    std::string_view text)
{
    char *copy = duplicate_text(text);
    if (copy != nullptr)
        give_text(event, presence, field, copy);
    return copy != nullptr;
}

// The same for bytes, of which there is at least one.
[[nodiscard]] inline bool copy_bytes(IMA_EVENT *event, std::uint32_t presence, message_bytes &field,
                                     std::span<const std::byte> bytes)
{
    auto *copy = static_cast<std::uint8_t *>(std::malloc(bytes.size()));
    if (copy == nullptr)
        return false;
    std::memcpy(copy, bytes.data(), bytes.size());
    if ((event->present & presence) != 0)
        std::free(field.data);
    field = {copy, bytes.size()};
    event->present |= presence;
    return true;
}
