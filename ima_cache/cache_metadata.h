// The shared-memory object that says which blocks the cache has, byte for byte (packed, little-endian):
//
//     0       4           8                 520         521           529          537
//   | semid | meta_size | cache_dir (512) | cur_block | tail_offset | last_event | blocks: 200 x 24 |
//
// It outlives the process, not the boot. The block files are the truth: from them, at every start, all of it
// is derived but the directory and cur_block.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "ima_cache/block_format.h"

struct [[gnu::packed]] ima_cache_block_info {
    std::uint64_t first_event;
    std::uint64_t event_count;
    std::uint64_t start_offset; // in the kernel's list, of the first event
};

inline constexpr std::size_t CACHE_DIR_SIZE = 512;

struct [[gnu::packed]] ima_cache_meta {
    std::uint32_t semid;
    std::uint32_t meta_size;        // of the object
    char cache_dir[CACHE_DIR_SIZE]; // NUL-terminated; empty until the first start of the boot is through
    std::uint8_t cur_block;         // the block that is written
    std::uint64_t tail_offset;      // in the kernel's list, behind the last cached event
    std::uint64_t last_event;       // its number, and so the number of cached events
    std::array<ima_cache_block_info, IMA_CACHE_MAX_BLOCKS> blocks; // all zeros: no such block
};

static_assert(sizeof(ima_cache_block_info) == 24);
static_assert(sizeof(ima_cache_meta) == 5337);
static_assert(offsetof(ima_cache_meta, semid) == 0);
static_assert(offsetof(ima_cache_meta, meta_size) == 4);
static_assert(offsetof(ima_cache_meta, cache_dir) == 8);
static_assert(offsetof(ima_cache_meta, cur_block) == 520);
static_assert(offsetof(ima_cache_meta, tail_offset) == 521);
static_assert(offsetof(ima_cache_meta, last_event) == 529);
static_assert(offsetof(ima_cache_meta, blocks) == 537);

inline constexpr char IMA_CACHE_META_NAME[] = "ima_cache_meta";
inline constexpr char IMA_CACHE_META_PATH[] = "/dev/shm/ima_cache_meta"; // also the semaphores' key file
inline constexpr char IMA_CACHE_ROOT[] = "/harddisk:/ima/";

// Whether these are metadata that a first start has finished and that do not contradict themselves: their
// size, a current block that there can be, a directory right below the cache's root.
bool metadata_are_sound(const ima_cache_meta &meta);
