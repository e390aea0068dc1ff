// The events that a retrieval holds: an array that grows by whole chunks and is released unless handed over.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ima_cache/ima_cache.h"
#include "platform/messages.h"

// Of a chunk's elements, without the heap of their fields.
inline constexpr std::uint64_t CHUNK_BYTES = MAX_IMA_EVENTS * sizeof(IMA_EVENT);

class event_array {
public:
    event_array() = default;
    explicit event_array(message_list<IMA_EVENT> events) : items_(events.items), count_(events.count)
    {
        capacity_ = count_;
    }
    event_array(event_array &&other) noexcept
        : items_(std::exchange(other.items_, nullptr)), count_(std::exchange(other.count_, 0)),
          capacity_(std::exchange(other.capacity_, 0))
    {
    }
    event_array &operator=(event_array &&other) noexcept
    {
        std::swap(items_, other.items_);
        std::swap(count_, other.count_);
        std::swap(capacity_, other.capacity_);
        return *this;
    }
    ~event_array()
    {
        clear();
        std::free(items_);
    }

    IMA_EVENT *items() const noexcept { return items_; }
    std::uint64_t count() const noexcept { return count_; }
    std::uint64_t room() const noexcept { return capacity_ - count_; }
    bool allocated() const noexcept { return items_ != nullptr; }

    // Room for `chunks` chunks in all; new elements are zero. False, with nothing changed, without memory.
    bool grow(std::uint64_t chunks)
    {
        std::uint64_t capacity = chunks * MAX_IMA_EVENTS;
        if (capacity <= capacity_)
            return true;
        auto *larger = static_cast<IMA_EVENT *>(std::realloc(items_, capacity * sizeof(IMA_EVENT)));
        if (larger == nullptr)
            return false;
        items_ = larger;
        capacity_ = capacity;
        std::memset(static_cast<void *>(items_ + count_), 0, room() * sizeof(IMA_EVENT));
        return true;
    }

    // The next free element is filled now. There is room.
    IMA_EVENT &next() noexcept { return items_[count_]; }
    void take_next() noexcept { ++count_; }

    // Moves the events of the other behind these. There is room.
    void append(event_array &other) noexcept
    {
        if (other.count_ != 0)
            std::memcpy(static_cast<void *>(items_ + count_), other.items_, other.count_ * sizeof(IMA_EVENT));
        count_ += other.count_;
        other.count_ = 0;
    }

    // Releases the events with smaller numbers, which come first.
    void drop_before(std::uint64_t number) noexcept
    {
        std::uint64_t dropped = 0;
        while (dropped < count_ && items_[dropped].event_num < number)
            message_release(items_[dropped++]);
        if (dropped == 0)
            return;
        count_ -= dropped;
        std::memmove(static_cast<void *>(items_), items_ + dropped, count_ * sizeof(IMA_EVENT));
        std::memset(static_cast<void *>(items_ + count_), 0, dropped * sizeof(IMA_EVENT));
    }

    // Releases what is in the events; the array stays, of zeros.
    void clear() noexcept
    {
        for (std::uint64_t i = 0; i < count_; ++i)
            message_release(items_[i]);
        count_ = 0;
    }

    message_list<IMA_EVENT> list() const noexcept { return {items_, static_cast<std::uint32_t>(count_)}; }

    message_list<IMA_EVENT> hand_over() noexcept
    {
        message_list<IMA_EVENT> handed = list();
        items_ = nullptr;
        count_ = capacity_ = 0;
        return handed;
    }

private:
    IMA_EVENT *items_ = nullptr;
    std::uint64_t count_ = 0;
    std::uint64_t capacity_ = 0;
};
