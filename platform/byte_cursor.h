// The one way in which bytes from outside are read: a cursor that knows its end. Every read says whether it
// fitted and takes nothing when it did not, so a parser is a straight list of gets.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

class byte_cursor {
public:
    explicit byte_cursor(std::span<const std::byte> bytes) noexcept : bytes_(bytes) {}

    std::size_t position() const noexcept { return position_; }
    std::size_t remaining() const noexcept { return bytes_.size() - position_; }
    bool at_end() const noexcept { return remaining() == 0; }

    // An unsigned integer as it lies there, little-endian.
    template <std::unsigned_integral T>
    [[nodiscard]] bool get_le(T &value) noexcept
    {
        static_assert(std::endian::native == std::endian::little, "the targets are little-endian");
        if (remaining() < sizeof value)
            return false;
        std::memcpy(&value, bytes_.data() + position_, sizeof value);
        position_ += sizeof value;
        return true;
    }

    // The next `length` bytes, as a view into the cursor's bytes.
    [[nodiscard]] bool get_bytes(std::size_t length, std::span<const std::byte> &bytes) noexcept
    {
        if (remaining() < length)
            return false;
        bytes = bytes_.subspan(position_, length);
        position_ += length;
        return true;
    }

    [[nodiscard]] bool skip(std::size_t length) noexcept
    {
        std::span<const std::byte> ignored;
        return get_bytes(length, ignored);
    }

private:
    std::span<const std::byte> bytes_;
    std::size_t position_ = 0;
};
