// MurmurHash64A, as published: for keys in a table that outlives the program, so the values must never
// change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

inline constexpr std::uint64_t MURMUR_MULTIPLIER = 0xc6a4a7935bd1e995;
inline constexpr int MURMUR_SHIFT = 47;

inline std::uint64_t murmur_hash_64a(std::span<const std::byte> key, std::uint64_t seed)
{
    // The length enters with 32 bits.
    std::uint64_t hash = seed ^ (static_cast<std::uint32_t>(key.size()) * MURMUR_MULTIPLIER);
    for (; key.size() >= sizeof(std::uint64_t); key = key.subspan(sizeof(std::uint64_t))) {
        std::uint64_t word = 0;
        std::memcpy(&word, key.data(), sizeof word);
        word *= MURMUR_MULTIPLIER;
        word ^= word >> MURMUR_SHIFT;
        word *= MURMUR_MULTIPLIER;
        hash = (hash ^ word) * MURMUR_MULTIPLIER;
    }
    if (!key.empty()) {
        std::uint64_t tail = 0;
        std::memcpy(&tail, key.data(), key.size());
        hash = (hash ^ tail) * MURMUR_MULTIPLIER;
    }
    hash ^= hash >> MURMUR_SHIFT;
    hash *= MURMUR_MULTIPLIER;
    hash ^= hash >> MURMUR_SHIFT;
    return hash;
}
