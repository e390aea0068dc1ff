// A reader over bytes that came from a node. It knows its end: the first read that does not fit fails the
// reader, every later one gives zeros, and `ok` tells. A decoder is a straight list of reads with one
// question at the end; only a count or a length that steers a loop or an allocation must be asked about
// before it is used.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

class byte_reader {
public:
    explicit byte_reader(std::string_view bytes) noexcept : left_(bytes) {}

    bool ok() const noexcept { return ok_; }
    bool at_end() const noexcept { return left_.empty(); }
    std::size_t remaining() const noexcept { return left_.size(); }

    std::uint8_t u8() noexcept { return get<std::uint8_t>(); }
    std::uint16_t u16() noexcept { return get<std::uint16_t>(); }
    std::uint32_t u32() noexcept { return get<std::uint32_t>(); }
    std::uint64_t u64() noexcept { return get<std::uint64_t>(); }

    // The next `length` bytes as a view; empty when they are not there.
    std::string_view bytes(std::uint64_t length) noexcept
    {
        if (!ok_ || length > left_.size()) {
            fail();
            return {};
        }
        const std::string_view taken = left_.substr(0, length);
        left_.remove_prefix(length);
        return taken;
    }

    std::string_view rest() noexcept { return bytes(left_.size()); }

    void fail() noexcept
    {
        ok_ = false;
        left_ = {};
    }

private:
    // Little-endian, as firmware and kernel write it.
    template <std::unsigned_integral T>
    T get() noexcept
    {
        T value = 0;
        const std::string_view taken = bytes(sizeof value);
        for (std::size_t i = 0; i < taken.size(); ++i)
            value = static_cast<T>(
                value | static_cast<T>(static_cast<T>(static_cast<unsigned char>(taken[i])) << (8 * i)));
        return value;
    }

    std::string_view left_;
    bool ok_ = true;
};
