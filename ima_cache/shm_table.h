// A table in shared memory that outlives the process, not the boot: byte-string keys of at most 512 bytes to
// 64-bit values, of fixed capacity, insert-only, shared by any processes that open it.
//
// Every access is made under the lock of the table's semaphore set. A process that dies in an insert leaves
// either no entry or a whole one; counters it has left behind are put right by the next insert. A table that
// something else has damaged makes operations fail; it never leads them outside the object or into a loop.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ima_cache/shm_object.h"
#include "ima_cache/shm_table_layout.h"

// The process's view of a table. The agent keeps it until it ends; deleting it closes the view and leaves the
// table alone.
struct shmht_handle {
    shm_object object;
    shmht_header *header = nullptr;
    shmht_entry *buckets = nullptr;
    shmht_entry *overflow = nullptr;
    std::uint64_t bucket_count = 0; // that the object was mapped for, whatever the header says later
};

// Requests above this many entries are refused.
inline constexpr std::uint64_t SHMHT_REQUEST_MAX = 0x40000000;

// Opens the table in the POSIX shared-memory object `name`, or sets it up: with the smallest of `shmht_sizes`
// above `requested_entries`, or the next smaller one that takes less than a quarter of the free space of the
// file system of `path`. That existing file (the object's own, as a rule) is the semaphore set's key, too.
//
// A whole table that is there already keeps its size and its entries; an object that is anything else is
// cleared and set up anew. A new handle; or null, with a trace line that says what failed.
shmht_handle *at_create_shmht(const char *name, const char *path, std::uint64_t requested_entries);

inline constexpr std::int32_t SHMHT_INSERTED = 1;
inline constexpr std::int32_t SHMHT_FULL = -1;
inline constexpr std::int32_t SHMHT_KEY_TOO_LONG = -22;
inline constexpr std::int32_t SHMHT_NOT_LOCKED = -125;

// Inserts a key that a search has not found; an equal key is not looked for. SHMHT_INSERTED; or, with the
// table unchanged: SHMHT_FULL, also when the file system has no room for the entry or the table is damaged;
// SHMHT_KEY_TOO_LONG; SHMHT_NOT_LOCKED.
std::int32_t at_shmht_insert(shmht_handle *handle, const void *key, std::uint64_t key_len,
                             std::uint64_t value);

// 0 with *value; or -1, with *value unchanged: not found, not locked, or damaged.
std::int32_t at_shmht_search(shmht_handle *handle, const void *key, std::uint64_t key_len,
                             std::uint64_t *value);

// How full the table is. False, with zeros, when it is not locked or damaged.
struct shmht_usage {
    std::uint64_t buckets, entries, collisions;
};
bool at_shmht_usage(shmht_handle *handle, shmht_usage *usage);
