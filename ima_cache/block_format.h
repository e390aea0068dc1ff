// A block file of the IMA cache, byte for byte (integers little-endian):
//
//     0            32        36         40            48            56
//   | block_hash | version | used_len | first_event | event_count | start_offset |
//
//     64           72            80         88
//   | end_offset | create_time | end_time | chunks |
//
//     88       92
//   | length | payload | length | payload | ... | zeros, until the block is sealed
//   |<---- chunk ----->|                        ^ used_len
//
// A chunk's payload is an encoded IMACacheBlock of exactly 1000 events. Chunks lie back to back in the order
// of the kernel's list; a length of 0 ends them.
//
// block_hash is the SHA-256 of the predecessor's block_hash (zeros for block 0) and the file from `version`
// up to used_len, so that every block vouches for all before it. It is zeros until the first chunk is
// written.
//
// A block is reserved and filled with zeros when it is made, and cut to used_len and made immutable when it
// is full (sealed).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "ima_cache/ima_cache.h"

using sha256_digest = std::array<std::uint8_t, 32>;

struct cache_block_hdr {
    sha256_digest block_hash;
    std::uint32_t version;
    std::uint32_t used_len; // bytes of the file in use, with the header
    std::uint64_t first_event;
    std::uint64_t event_count;
    std::uint64_t start_offset; // in the kernel's list, of the first event
    std::uint64_t end_offset;   // in the kernel's list, behind the last event
    std::int64_t create_time;   // seconds since the epoch: of the file, then of its first chunk
    std::int64_t end_time;      // of the sealing; 0 before it
};

static_assert(sizeof(cache_block_hdr) == 88);
static_assert(offsetof(cache_block_hdr, block_hash) == 0);
static_assert(offsetof(cache_block_hdr, version) == 32);
static_assert(offsetof(cache_block_hdr, used_len) == 36);
static_assert(offsetof(cache_block_hdr, first_event) == 40);
static_assert(offsetof(cache_block_hdr, event_count) == 48);
static_assert(offsetof(cache_block_hdr, start_offset) == 56);
static_assert(offsetof(cache_block_hdr, end_offset) == 64);
static_assert(offsetof(cache_block_hdr, create_time) == 72);
static_assert(offsetof(cache_block_hdr, end_time) == 80);

inline constexpr std::uint32_t IMA_CACHE_BLOCK_VERSION = 0x00010000;
inline constexpr std::uint32_t CACHE_BLOCK_HDR_LEN = sizeof(cache_block_hdr);
inline constexpr std::uint32_t CACHE_BLOCK_HASHED_FROM = offsetof(cache_block_hdr, version);

using cache_chunk_len = std::uint32_t; // of the payload

inline constexpr unsigned IMA_CACHE_MAX_BLOCKS = 200;
inline constexpr std::uint64_t IMA_CACHE_BLOCK_EVENTS = 100'000;
inline constexpr std::uint64_t IMA_CACHE_BLOCK_SIZE = 65'100'488; // reserved; chunks may grow past it
static_assert(IMA_CACHE_BLOCK_SIZE ==
              CACHE_BLOCK_HDR_LEN + IMA_CACHE_BLOCK_EVENTS / MAX_IMA_EVENTS * 651'004);

inline constexpr char IMA_CACHE_PREFIX[] = "ima_cache_"; // of the files, and of the directories
