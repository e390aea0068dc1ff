// What the process holds of the cache: the mapped metadata, the lock around them, the hashes of the blocks.
#pragma once

#include <array>
#include <cstdint>

#include "ima_cache/cache_metadata.h"

struct ima_cache_context {
    ima_cache_meta *meta = nullptr; // null while the cache cannot be used
    int semid = -1;
    bool lock_stuck = false; // it could not be given back: taking it again would block for ever
    // An operation has changed, or may have changed, a block and could not finish the metadata: they are
    // derived from the blocks before they are used again.
    bool metadata_behind = false;
    std::array<sha256_digest, IMA_CACHE_MAX_BLOCKS> block_hash_chain{}; // as last written or verified
};
extern ima_cache_context ima_cache_ctx;

// How large blocks are. Nothing in the agent changes this; tests have smaller blocks, from before
// at_ima_cache_init on.
struct ima_cache_limits {
    std::uint64_t block_events = IMA_CACHE_BLOCK_EVENTS;
    std::uint64_t block_size = IMA_CACHE_BLOCK_SIZE;
};
extern ima_cache_limits at_ima_cache_limits;

// A hold of the metadata's lock; it ends with the scope. Not held, and false, when there are no metadata or
// the lock could not be taken. Never taken while one is held.
class metadata_lock {
public:
    static metadata_lock read();
    static metadata_lock write();
    metadata_lock(const metadata_lock &) = delete;
    metadata_lock &operator=(const metadata_lock &) = delete;
    ~metadata_lock();
    explicit operator bool() const { return release_ != nullptr; }

private:
    metadata_lock(int (*take)(int), int (*release)(int));
    int (*release_)(int) = nullptr; // null: not held
};

// A file in the cache directory.
struct cache_path {
    char text[CACHE_DIR_SIZE + 32];
};

// With the lock held.
cache_path block_path(const ima_cache_meta &meta, unsigned index);
// Where a block is made before it gets its name.
cache_path new_block_path(const ima_cache_meta &meta);

// The same under the read lock, with the index of the current block. False without the lock.
bool read_block_path(unsigned index, cache_path &path, std::uint8_t &cur_block);

// Marks the block as one that does not exist. False without the lock.
bool clear_block_entry(unsigned index);

// Lets the metadata catch up with the blocks where an operation has left them behind. False when they cannot.
bool metadata_follow_blocks();
