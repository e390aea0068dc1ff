#include "bench/ima/table_yardsticks.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ima_cache/murmur_hash.h"
#include "ima_cache/semaphore_lock.h"

namespace {

constexpr std::uint64_t SHIPPED_ENTRIES = 0x100000;

void require(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "ima_bench: %s\n", what);
        std::exit(1);
    }
}

std::string unique_name(const char *what)
{
    static int count;
    return "attest_bench_" + std::string(what) + std::to_string(getpid()) + "_" + std::to_string(++count);
}

std::uint64_t hash_of(const std::string &key)
{
    return murmur_hash_64a(std::as_bytes(std::span(key)), 42);
}

MDB_val value_of(const std::string &key)
{
    return {key.size(), const_cast<char *>(key.data())};
}

} // namespace

semaphore_calls::semaphore_calls() : semid(semget(IPC_PRIVATE, SEM_COUNT, 0600)) {}
semaphore_calls::~semaphore_calls()
{
    semctl(semid, 0, IPC_RMID);
}
void semaphore_calls::of_a_search() const
{
    at_sem_rdlock(semid);
    at_sem_rdunlock(semid);
}
void semaphore_calls::of_an_insert() const
{
    at_sem_wrlock(semid);
    at_sem_wrunlock(semid);
}

bench_table::bench_table() : name(unique_name("table")), path("/dev/shm/" + name)
{
    handle.reset(at_create_shmht(name.c_str(), path.c_str(), SHIPPED_ENTRIES));
    require(handle && handle->bucket_count == 1572869, "no room for the full table in /dev/shm");
}
bench_table::~bench_table()
{
    semctl(static_cast<int>(handle->header->semid), 0, IPC_RMID);
    handle.reset();
    shm_unlink(name.c_str());
}
std::int64_t bench_table::object_bytes() const
{
    struct stat object {};
    stat(path.c_str(), &object);
    return object.st_blocks * 512;
}

bool unlocked_search(const shmht_entry *buckets, const shmht_entry *overflow, std::uint64_t bucket_count,
                     const std::string &key, std::uint64_t &value)
{
    std::uint64_t hash = hash_of(key);
    for (const shmht_entry *entry = &buckets[hash % bucket_count]; entry->in_use != 0;
         entry = &overflow[entry->next]) {
        if (entry->hash == hash && entry->key_len == key.size() &&
            std::memcmp(entry->key.data(), key.data(), key.size()) == 0) {
            value = entry->value;
            return true;
        }
        if (entry->next == SHMHT_CHAIN_END)
            break;
    }
    return false;
}

unlocked_table::unlocked_table(std::uint64_t count) : bucket_count(count)
{
    void *memory =
        mmap(nullptr, shmht_object_size(count), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "no memory for the unlocked table");
    header = static_cast<shmht_header *>(memory);
    buckets = reinterpret_cast<shmht_entry *>(header + 1);
    overflow = buckets + count;
}
unlocked_table::~unlocked_table()
{
    munmap(header, shmht_object_size(bucket_count));
}
void unlocked_table::insert(const std::string &key, std::uint64_t value) const
{
    std::uint64_t hash = hash_of(key);
    shmht_entry *entry = &buckets[hash % bucket_count];
    if (entry->in_use != 0) {
        shmht_entry *tail = entry;
        while (tail->next != SHMHT_CHAIN_END)
            tail = &overflow[tail->next];
        tail->next = header->collision_count;
        entry = &overflow[header->collision_count++];
    }
    entry->in_use = 1;
    std::memcpy(entry->key.data(), key.data(), key.size());
    entry->key_len = key.size();
    entry->hash = hash;
    entry->next = SHMHT_CHAIN_END;
    entry->value = value;
    ++header->entry_count;
}

lmdb_store::lmdb_store() : path("/dev/shm/" + unique_name("lmdb"))
{
    std::filesystem::create_directory(path);
    mdb_env_create(&environment);
    mdb_env_set_mapsize(environment, std::size_t{4} << 30);
    require(mdb_env_open(environment, path.c_str(), MDB_NOSYNC, 0600) == 0, "LMDB does not open");
    MDB_txn *transaction = nullptr;
    mdb_txn_begin(environment, nullptr, 0, &transaction);
    mdb_dbi_open(transaction, nullptr, MDB_CREATE, &store);
    mdb_txn_commit(transaction);
}
lmdb_store::~lmdb_store()
{
    mdb_env_close(environment);
    std::filesystem::remove_all(path);
}
bool lmdb_store::search(const std::string &key, std::uint64_t &value) const
{
    MDB_txn *transaction = nullptr;
    mdb_txn_begin(environment, nullptr, MDB_RDONLY, &transaction);
    MDB_val wanted = value_of(key);
    MDB_val found{};
    bool there = mdb_get(transaction, store, &wanted, &found) == 0;
    if (there)
        std::memcpy(&value, found.mv_data, sizeof value);
    mdb_txn_abort(transaction);
    return there;
}
void lmdb_store::insert(const std::string &key, std::uint64_t value) const
{
    MDB_txn *transaction = nullptr;
    mdb_txn_begin(environment, nullptr, 0, &transaction);
    MDB_val name = value_of(key);
    MDB_val data{sizeof value, &value};
    mdb_put(transaction, store, &name, &data, 0);
    mdb_txn_commit(transaction);
}
