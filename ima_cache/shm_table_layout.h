// The table's shared-memory object, byte for byte (native byte order):
//
//          0                 8         12        16             24                32            40
//   header | bucket_count    | semid   | shm_fd  | entry_count  | collision_count | size_index  |
//
//       40               40 + N * 552             40 + N * 1104
//        | bucket area    | overflow area          |                N = bucket_count
//        | N home slots   | N slots, used in order |
//
//          0        4            516       520       528    536    544     552
//   entry  | in_use | key (512)  | (zero)  | key_len | hash | next | value |
//
// Insert-only: an entry in use never changes, but for `next` of a chain's last one. The links of a chain lead
// to ever larger overflow indexes, because overflow entries are used in order and linked at the tail.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t SHMHT_KEY_MAX = 512;
inline constexpr std::uint64_t SHMHT_CHAIN_END = ~std::uint64_t{0};

struct shmht_header {
    std::uint64_t bucket_count;
    std::uint32_t semid;
    std::int32_t shm_fd; // in the process that created the object; not used for access
    std::uint64_t entry_count;
    std::uint64_t collision_count; // also the index of the first free overflow entry
    std::uint64_t size_index;      // of bucket_count in shmht_sizes
};

struct shmht_entry {
    std::uint32_t in_use; // 1 or 0
    std::array<std::byte, SHMHT_KEY_MAX> key;
    std::uint32_t alignment; // 0
    std::uint64_t key_len;
    std::uint64_t hash;
    std::uint64_t next; // overflow index, or SHMHT_CHAIN_END
    std::uint64_t value;
};

// What the free overflow entry at collision_count notes in its key_len (then also, in its hash, the hash of
// the key and, in its value, the entry_count so far) about the insert that is under way. A note whose value
// is not entry_count is of an insert that has finished.
inline constexpr std::uint64_t SHMHT_INSERT_NOTE = ~std::uint64_t{0};

static_assert(sizeof(shmht_header) == 40);
static_assert(offsetof(shmht_header, bucket_count) == 0);
static_assert(offsetof(shmht_header, semid) == 8);
static_assert(offsetof(shmht_header, shm_fd) == 12);
static_assert(offsetof(shmht_header, entry_count) == 16);
static_assert(offsetof(shmht_header, collision_count) == 24);
static_assert(offsetof(shmht_header, size_index) == 32);

static_assert(sizeof(shmht_entry) == 552);
static_assert(offsetof(shmht_entry, in_use) == 0);
static_assert(offsetof(shmht_entry, key) == 4);
static_assert(offsetof(shmht_entry, alignment) == 516);
static_assert(offsetof(shmht_entry, key_len) == 520);
static_assert(offsetof(shmht_entry, hash) == 528);
static_assert(offsetof(shmht_entry, next) == 536);
static_assert(offsetof(shmht_entry, value) == 544);

// Bucket counts, each about twice the one before: primes, so that every bit of a hash counts in its bucket.
inline constexpr std::array<std::uint64_t, 26> shmht_sizes = {
    53,       97,       193,      389,       769,       1543,      3079,      6151,      12289,
    24593,    49157,    98317,    196613,    393241,    786433,    1572869,   3145739,   6291469,
    12582917, 25165843, 50331653, 100663319, 201326611, 402653189, 805306457, 1610612741};

// Bytes of both areas, and of the object. No product overflows for a size of the table.
constexpr std::uint64_t shmht_area_size(std::uint64_t bucket_count)
{
    return bucket_count * 2 * sizeof(shmht_entry);
}
constexpr std::uint64_t shmht_object_size(std::uint64_t bucket_count)
{
    return shmht_area_size(bucket_count) + sizeof(shmht_header);
}
static_assert(shmht_object_size(1572869) == 1736447416);
