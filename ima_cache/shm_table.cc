#include "ima_cache/shm_table.h"

#include <cstring>
#include <span>

#include "agent/debug_trace.h"
#include "ima_cache/murmur_hash.h"
#include "ima_cache/semaphore_lock.h"
#include "ima_cache/shm_store.h"

namespace {

constexpr std::uint64_t HASH_SEED = 42;
constexpr char INSERT[] = "at_shmht_insert";
constexpr char SEARCH[] = "at_shmht_search";

using key_bytes = std::span<const std::byte>;

// The counters as they were read under the lock.
struct table_counters {
    std::uint64_t entries;
    std::uint64_t collisions;
};

bool in_use(shmht_entry &entry)
{
    return shm_load(entry.in_use) != 0;
}

shmht_entry &home_of(shmht_handle &table, std::uint64_t hash)
{
    return table.buckets[hash % table.bucket_count];
}

bool back(shmht_handle &table, shmht_entry &entry)
{
    return shm_object_back(table.object, &entry, sizeof entry);
}

// Lets the home slot come nearer while the kernel takes the lock: the beginning and the end of the entry, and
// as much of the key as a path and a digest take. A hint: nothing is read.
void prefetch(const shmht_entry &entry)
{
    constexpr std::size_t line = 64;
    __builtin_prefetch(&entry.in_use);
    __builtin_prefetch(&entry.key[line]);
    __builtin_prefetch(&entry.key[2 * line]);
    __builtin_prefetch(&entry.key_len);
    __builtin_prefetch(&entry.value);
}

// False when the header does not fit the table that was mapped.
bool read_counters(shmht_handle &table, table_counters &counters)
{
    counters = {shm_load(table.header->entry_count), shm_load(table.header->collision_count)};
    return shm_load(table.header->bucket_count) == table.bucket_count &&
           counters.entries <= table.bucket_count && counters.collisions < table.bucket_count;
}

// A walk along a chain, from the home slot on. It ends in any table: an index that is not larger than the one
// before is none that an insert has made.
struct chain_walk {
    shmht_entry *entry;
    std::uint64_t least_next = 0;
    bool damaged = false;
};

// Goes to the next entry. False, with the walk still at the last one, at the end of the chain or of what is
// sound of it.
bool step(shmht_handle &table, chain_walk &walk)
{
    std::uint64_t next = shm_load(walk.entry->next);
    if (next == SHMHT_CHAIN_END)
        return false;
    if (next < walk.least_next || next >= table.bucket_count || !back(table, table.overflow[next]) ||
        !in_use(table.overflow[next])) {
        walk.damaged = true;
        return false;
    }
    walk.entry = &table.overflow[next];
    walk.least_next = next + 1;
    return true;
}

bool holds(shmht_entry &entry, key_bytes key, std::uint64_t hash)
{
    return entry.hash == hash && entry.key_len == key.size() &&
           (key.empty() || std::memcmp(entry.key.data(), key.data(), key.size()) == 0);
}

// Fills a free entry and puts it into use with the last store.
void fill(shmht_entry &entry, key_bytes key, std::uint64_t hash, std::uint64_t value)
{
    shm_store(entry.key_len, std::uint64_t{0}); // no note any more, before its words change
    if (!key.empty())
        std::memcpy(entry.key.data(), key.data(), key.size());
    entry.hash = hash;
    entry.next = SHMHT_CHAIN_END;
    entry.value = value;
    entry.key_len = key.size();
    shm_store(entry.in_use, std::uint32_t{1});
}

// Notes an insert in a free entry; it counts once the mark is there.
void note_insert(shmht_entry &entry, std::uint64_t hash, std::uint64_t entries)
{
    shm_store(entry.key_len, std::uint64_t{0});
    entry.hash = hash;
    entry.value = entries;
    shm_store(entry.key_len, SHMHT_INSERT_NOTE);
}

// The home slot: note, entry, entry_count.
void insert_home(shmht_handle &table, const table_counters &counters, shmht_entry &home, key_bytes key,
                 std::uint64_t hash, std::uint64_t value)
{
    note_insert(table.overflow[counters.collisions], hash, counters.entries);
    fill(home, key, hash, value);
    shm_store(table.header->entry_count, counters.entries + 1);
}

// Counts an overflow entry that is linked: note in the slot that is free next, collision_count, entry_count.
void count_collision(shmht_handle &table, table_counters &counters, std::uint64_t hash)
{
    note_insert(table.overflow[counters.collisions + 1], hash, counters.entries);
    shm_store(table.header->collision_count, ++counters.collisions);
    shm_store(table.header->entry_count, ++counters.entries);
}

// The overflow area: entry, link, then the counters.
bool insert_overflow(shmht_handle &table, table_counters &counters, shmht_entry &home, key_bytes key,
                     std::uint64_t hash, std::uint64_t value)
{
    std::uint64_t free_index = counters.collisions;
    attest_trace_as(INSERT, "at_shmht_insert: Located free colision entry : %lu\n", free_index);
    chain_walk walk{&home};
    while (step(table, walk)) {
    }
    if (walk.damaged || free_index < walk.least_next)
        return false;
    fill(table.overflow[free_index], key, hash, value);
    shm_store(walk.entry->next, free_index);
    count_collision(table, counters, hash);
    return true;
}

// Whether the overflow entry hangs in the chain of its home slot.
bool is_linked(shmht_handle &table, shmht_entry &entry)
{
    chain_walk walk{&home_of(table, entry.hash)};
    if (!back(table, *walk.entry))
        return false;
    while (walk.entry != &entry) {
        if (!step(table, walk))
            return false;
    }
    return true;
}

// Puts right what an insert that was cut off has left: its entry counts when it can be found, and is free
// when it cannot. May itself be cut off anywhere. False when the table is damaged.
bool finish_cut_off_insert(shmht_handle &table, table_counters &counters)
{
    shmht_entry *free_entry = &table.overflow[counters.collisions];
    if (in_use(*free_entry)) {
        if (!is_linked(table, *free_entry))
            shm_store(free_entry->in_use, std::uint32_t{0});
        else if (counters.collisions + 1 < table.bucket_count && counters.entries < table.bucket_count &&
                 back(table, free_entry[1]))
            count_collision(table, counters, free_entry->hash);
        else
            return false;
        free_entry = &table.overflow[counters.collisions];
    }
    if (in_use(*free_entry))
        return false;
    bool open_note = shm_load(free_entry->key_len) == SHMHT_INSERT_NOTE &&
                     free_entry->value == counters.entries && counters.entries < table.bucket_count;
    if (open_note) {
        shmht_entry &home = home_of(table, free_entry->hash);
        if (!back(table, home))
            return false;
        if (in_use(home))
            shm_store(table.header->entry_count, ++counters.entries);
    }
    return true;
}

// The memory that an insert may touch besides the home slot: the free overflow entry and the one behind it.
bool back_free_entries(shmht_handle &table, const table_counters &counters)
{
    return back(table, table.overflow[counters.collisions]) &&
           (counters.collisions + 1 == table.bucket_count ||
            back(table, table.overflow[counters.collisions + 1]));
}

std::int32_t insert_locked(shmht_handle &table, key_bytes key, std::uint64_t hash, std::uint64_t value)
{
    table_counters counters{};
    // Backed twice: an entry that is finished first moves the free ones on.
    if (!read_counters(table, counters) || !back_free_entries(table, counters) ||
        !finish_cut_off_insert(table, counters) || !back_free_entries(table, counters)) {
        attest_trace_as(INSERT, "the hash table is damaged or has no memory\n");
        return SHMHT_FULL;
    }
    if (counters.entries >= table.bucket_count)
        return SHMHT_FULL;
    std::uint64_t index = hash % table.bucket_count;
    attest_trace_as(INSERT, "at_shmht_insert: Generated Entry Index: %lu \n", index);
    shmht_entry &home = table.buckets[index];
    if (!in_use(home)) {
        insert_home(table, counters, home, key, hash, value);
        return SHMHT_INSERTED;
    }
    attest_trace_as(INSERT, "at_shmht_insert: Collision in the entry %lu \n", index);
    // A free slot for a collision at the last index would leave none for the note: no sound table gets there,
    // for its home slots hold entries too.
    if (counters.collisions + 1 == table.bucket_count ||
        !insert_overflow(table, counters, home, key, hash, value)) {
        attest_trace_as(INSERT, "the hash table is damaged or has no memory\n");
        return SHMHT_FULL;
    }
    return SHMHT_INSERTED;
}

bool search_locked(shmht_handle &table, shmht_entry &home, key_bytes key, std::uint64_t hash,
                   std::uint64_t *value)
{
    table_counters counters{};
    if (!read_counters(table, counters) || !in_use(home))
        return false;
    chain_walk walk{&home};
    do {
        if (holds(*walk.entry, key, hash)) {
            attest_trace_as(SEARCH, "at_shmht_search: found at_shmht_search!\n");
            *value = walk.entry->value;
            return true;
        }
    } while (step(table, walk));
    if (walk.damaged)
        attest_trace_as(SEARCH, "the hash table is damaged or has no memory\n");
    return false;
}

} // namespace

std::int32_t at_shmht_insert(shmht_handle *handle, const void *key, std::uint64_t key_len,
                             std::uint64_t value)
{
    shmht_handle &table = *handle;
    bool fits = key_len <= SHMHT_KEY_MAX;
    key_bytes bytes;
    std::uint64_t hash = 0;
    bool backed = false;
    if (fits) {
        bytes = {static_cast<const std::byte *>(key), key_len};
        hash = murmur_hash_64a(bytes, HASH_SEED);
        backed = back(table, home_of(table, hash));
        prefetch(home_of(table, hash));
    }
    int semid = static_cast<int>(shm_load(table.header->semid));
    if (at_sem_wrlock(semid) < 0)
        return SHMHT_NOT_LOCKED;
    std::int32_t result = SHMHT_KEY_TOO_LONG;
    if (fits)
        result = backed ? insert_locked(table, bytes, hash, value) : SHMHT_FULL;
    at_sem_wrunlock(semid);
    return result;
}

std::int32_t at_shmht_search(shmht_handle *handle, const void *key, std::uint64_t key_len,
                             std::uint64_t *value)
{
    if (key_len > SHMHT_KEY_MAX)
        return -1;
    shmht_handle &table = *handle;
    key_bytes bytes(static_cast<const std::byte *>(key), key_len);
    std::uint64_t hash = murmur_hash_64a(bytes, HASH_SEED);
    shmht_entry &home = home_of(table, hash);
    bool backed = back(table, home);
    prefetch(home);
    int semid = static_cast<int>(shm_load(table.header->semid));
    if (at_sem_rdlock(semid) < 0)
        return -1;
    attest_trace("at_shmht_search: Index for this key: %lu", hash % table.bucket_count);
    bool found = backed && search_locked(table, home, bytes, hash, value);
    at_sem_rdunlock(semid);
    return found ? 0 : -1;
}

bool at_shmht_usage(shmht_handle *handle, shmht_usage *usage)
{
    *usage = {};
    int semid = static_cast<int>(shm_load(handle->header->semid));
    if (at_sem_rdlock(semid) < 0)
        return false;
    table_counters counters{};
    bool sound = read_counters(*handle, counters);
    at_sem_rdunlock(semid);
    if (sound)
        *usage = {handle->bucket_count, counters.entries, counters.collisions};
    return sound;
}
