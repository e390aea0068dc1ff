// What every target needs: a demand that stops the fuzzer, and an input that is taken in pieces.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

inline void require(bool holds)
{
    if (!holds)
        std::abort();
}

// Behind its end an input gives zeros and nothing.
struct fuzz_input {
    std::span<const std::uint8_t> left;

    std::uint8_t u8()
    {
        if (left.empty())
            return 0;
        const std::uint8_t value = left.front();
        left = left.subspan(1);
        return value;
    }
    std::uint16_t u16()
    {
        const std::uint16_t high = u8();
        return static_cast<std::uint16_t>(high << 8 | u8());
    }
    std::span<const std::uint8_t> bytes(std::size_t count)
    {
        const auto taken = left.first(std::min(count, left.size()));
        left = left.subspan(taken.size());
        return taken;
    }
    std::string_view text(std::size_t count)
    {
        const auto taken = bytes(count);
        return {reinterpret_cast<const char *>(taken.data()), taken.size()};
    }
    bool at_end() const { return left.empty(); }
};
