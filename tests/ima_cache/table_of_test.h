// A table under a name of its own, removed with its semaphores at the end.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ima_cache/shm_table.h"

class table_of_test {
public:
    explicit table_of_test(std::uint64_t requested_entries = 0);
    ~table_of_test();
    table_of_test(const table_of_test &) = delete;
    table_of_test &operator=(const table_of_test &) = delete;

    // Closes the table and removes it, with its semaphores; the name stays for another.
    void remove();
    // Another view of the table, as a process that comes later gets it; null when it was refused.
    std::unique_ptr<shmht_handle> open_again(std::uint64_t requested_entries = 0) const;
    // The object's bytes, as a foreign hand may write them.
    void overwrite(const std::vector<std::byte> &bytes) const;

    shmht_handle *operator->() const { return handle.get(); }
    shmht_handle *get() const { return handle.get(); }
    std::int32_t insert(const std::string &key, std::uint64_t value) const;
    // The value; or -1 when the key is not found.
    std::int64_t search(const std::string &key) const;

    std::string name;
    std::string path;
    std::unique_ptr<shmht_handle> handle;
};

std::int32_t insert_key(shmht_handle *table, const std::string &key, std::uint64_t value);
std::int64_t search_key(shmht_handle *table, const std::string &key);

// `count` keys whose home is `bucket` in a table of 53.
std::vector<std::string> keys_of_bucket(std::uint64_t bucket, std::size_t count);

// Entries in use in both areas.
std::uint64_t count_entries(const shmht_handle &table);

// Runs `check` in a child with a file system of `size` bytes as its /dev/shm and with semaphores of its own;
// the test is skipped on a machine that does not let us.
void in_own_shm(std::size_t size, const std::function<void()> &check);

// Runs `work` in `count` children at once, for each number from 0; all must return true.
void in_children(int count, const std::function<bool(int)> &work);
