#include "tests/ima_cache/table_of_test.h"

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ima_cache/murmur_hash.h"

table_of_test::table_of_test(std::uint64_t requested_entries)
{
    static int count;
    name = "attest_test_" + std::to_string(getpid()) + "_" + std::to_string(++count);
    path = "/dev/shm/" + name;
    handle.reset(at_create_shmht(name.c_str(), path.c_str(), requested_entries));
}

table_of_test::~table_of_test()
{
    remove();
}

void table_of_test::remove()
{
    handle.reset();
    if (key_t key = ftok(path.c_str(), 1); key != -1) {
        if (int semid = semget(key, 2, 0); semid >= 0)
            semctl(semid, 0, IPC_RMID);
    }
    shm_unlink(name.c_str());
}

std::unique_ptr<shmht_handle> table_of_test::open_again(std::uint64_t requested_entries) const
{
    return std::unique_ptr<shmht_handle>(at_create_shmht(name.c_str(), path.c_str(), requested_entries));
}

void table_of_test::overwrite(const std::vector<std::byte> &bytes) const
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::int32_t table_of_test::insert(const std::string &key, std::uint64_t value) const
{
    return insert_key(handle.get(), key, value);
}

std::int64_t table_of_test::search(const std::string &key) const
{
    return search_key(handle.get(), key);
}

std::int32_t insert_key(shmht_handle *table, const std::string &key, std::uint64_t value)
{
    return at_shmht_insert(table, key.data(), key.size(), value);
}

std::int64_t search_key(shmht_handle *table, const std::string &key)
{
    constexpr std::uint64_t untouched = 0x5a5a;
    std::uint64_t value = untouched;
    if (at_shmht_search(table, key.data(), key.size(), &value) == 0)
        return static_cast<std::int64_t>(value);
    EXPECT_EQ(value, untouched) << "a search that found nothing has set a value";
    return -1;
}

std::vector<std::string> keys_of_bucket(std::uint64_t bucket, std::size_t count)
{
    std::vector<std::string> keys;
    for (int i = 0; keys.size() < count; ++i) {
        std::string key = "key " + std::to_string(i);
        if (murmur_hash_64a(std::as_bytes(std::span(key)), 42) % 53 == bucket)
            keys.push_back(key);
    }
    return keys;
}

std::uint64_t count_entries(const shmht_handle &table)
{
    std::uint64_t count = 0;
    for (std::uint64_t i = 0; i < 2 * table.bucket_count; ++i)
        count += table.buckets[i].in_use;
    return count;
}

namespace {

bool write_file(const char *path, const std::string &text)
{
    std::ofstream file(path);
    return static_cast<bool>(file << text << std::flush);
}

bool enter_own_shm(std::size_t size)
{
    std::string uid = std::to_string(geteuid());
    std::string gid = std::to_string(getegid());
    return unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC) == 0 &&
           write_file("/proc/self/setgroups", "deny") &&
           write_file("/proc/self/uid_map", "0 " + uid + " 1") &&
           write_file("/proc/self/gid_map", "0 " + gid + " 1") &&
           mount("tmpfs", "/dev/shm", "tmpfs", 0, ("size=" + std::to_string(size)).c_str()) == 0;
}

} // namespace

void in_own_shm(std::size_t size, const std::function<void()> &check)
{
    constexpr int NOT_ENTERED = 2;
    pid_t child = fork();
    if (child == 0) {
        if (!enter_own_shm(size))
            _exit(NOT_ENTERED);
        check();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == NOT_ENTERED)
        GTEST_SKIP() << "no user namespaces here";
    EXPECT_EQ(status, 0) << "with " << size << " bytes";
}

void in_children(int count, const std::function<bool(int)> &work)
{
    std::vector<pid_t> children;
    for (int i = 0; i < count; ++i) {
        pid_t child = fork();
        if (child == 0)
            _exit(work(i) ? 0 : 1);
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = 1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
}
