// What the table is held against: the semaphore calls alone, the same table without a lock, LMDB.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <lmdb.h>

#include "ima_cache/shm_table.h"

// A semaphore set of its own, and the calls of a search and of an insert.
struct semaphore_calls {
    int semid;
    semaphore_calls();
    ~semaphore_calls();
    void of_a_search() const;
    void of_an_insert() const;
};

// The full-size table under a name of its own, removed at the end.
struct bench_table {
    std::string name;
    std::string path;
    std::unique_ptr<shmht_handle> handle;
    bench_table();
    ~bench_table();
    std::int64_t object_bytes() const; // of memory that the object has
};

// Search and insert as the table makes them, in plain memory of the same layout and size.
bool unlocked_search(const shmht_entry *buckets, const shmht_entry *overflow, std::uint64_t bucket_count,
                     const std::string &key, std::uint64_t &value);

struct unlocked_table {
    std::uint64_t bucket_count;
    shmht_header *header;
    shmht_entry *buckets;
    shmht_entry *overflow;
    explicit unlocked_table(std::uint64_t count);
    ~unlocked_table();
    void insert(const std::string &key, std::uint64_t value) const;
};

// An LMDB store in shared memory, without syncing; each operation in its own transaction.
struct lmdb_store {
    std::string path;
    MDB_env *environment = nullptr;
    MDB_dbi store = 0;
    lmdb_store();
    ~lmdb_store();
    bool search(const std::string &key, std::uint64_t &value) const;
    void insert(const std::string &key, std::uint64_t value) const;
};
