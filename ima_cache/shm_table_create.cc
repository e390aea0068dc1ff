#include <algorithm>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "ima_cache/file_io.h"
#include "ima_cache/semaphore_lock.h"
#include "ima_cache/shm_store.h"
#include "ima_cache/shm_table.h"

namespace {

constexpr char CREATE[] = "at_create_shmht";
constexpr mode_t OBJECT_MODE = 0777;
constexpr std::uint64_t SHARE_OF_FREE_SPACE = 4;

unique_fd open_object(const char *name)
{
    unique_fd file = open_own_object(name, 0, OBJECT_MODE);
    if (!file) {
        attest_trace_as(CREATE, "shm_open failed \n");
        file = open_own_object(name, O_CREAT, OBJECT_MODE);
        if (!file)
            attest_trace_as(CREATE, "shm_open create failed \n");
    }
    return file;
}

// Keeps other creators out, so that nobody takes an object that is being set up for a damaged one. Closing
// the file, and so a creator's death, gives the lock back.
bool lock_object(int file)
{
    if (uninterrupted([=] { return flock(file, LOCK_EX); }) == 0)
        return true;
    attest_trace_as(CREATE, "flock failed\n");
    return false;
}

// Accepts every state that an insert passes through, for another process may be in one.
bool agrees(const shmht_header &header, std::uint64_t object_size)
{
    return header.size_index < shmht_sizes.size() && header.bucket_count == shmht_sizes[header.size_index] &&
           object_size == shmht_object_size(header.bucket_count) &&
           header.entry_count <= header.bucket_count && header.collision_count < header.bucket_count &&
           header.collision_count <= header.entry_count;
}

// The bucket count of the whole table in the object, if there is one.
std::optional<std::uint64_t> stored_bucket_count(int file, std::uint64_t object_size)
{
    shmht_header header{};
    if (pread(file, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header) ||
        !agrees(header, object_size))
        return std::nullopt;
    return header.bucket_count;
}

// The index of the size that the request asks for, or of the next smaller one that the free space allows.
std::optional<std::size_t> choose_size(std::uint64_t requested_entries, const char *path)
{
    // SHMHT_REQUEST_MAX lies below the last size, so this is never the end.
    const auto *size = std::ranges::upper_bound(shmht_sizes, requested_entries);
    struct statvfs space {};
    if (statvfs(path, &space) == 0) {
        std::uint64_t available = 0;
        if (__builtin_mul_overflow(space.f_bavail, space.f_frsize, &available))
            available = std::numeric_limits<std::uint64_t>::max();
        while (shmht_area_size(*size) >= available / SHARE_OF_FREE_SPACE) {
            if (size == shmht_sizes.begin()) {
                attest_trace_as(CREATE, "no room for a hash table in %lu bytes\n", available);
                return std::nullopt;
            }
            --size;
        }
    }
    return size - shmht_sizes.begin();
}

// Makes the object's bytes zeros. Punched, not cut to nothing: a process that still has it mapped would die
// of an access.
bool clear_object(int file, std::uint64_t size)
{
    if (size == 0)
        return true;
    attest_trace_as(CREATE, "no whole hash table in the object, it is set up anew\n");
    bool cleared =
        fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size)) == 0;
    if (!cleared)
        attest_trace_as(CREATE, "clearing the object failed\n");
    return cleared;
}

struct table_choice {
    std::uint64_t bucket_count;
    std::optional<std::size_t> new_size_index; // of a table that is to be set up
};

// The table that is there, or the one that there will be.
std::optional<table_choice> find_table(int file, const char *path, std::uint64_t requested_entries)
{
    struct stat object {};
    if (fstat(file, &object) != 0)
        return std::nullopt;
    auto size = static_cast<std::uint64_t>(object.st_size);
    if (std::optional<std::uint64_t> stored = stored_bucket_count(file, size))
        return table_choice{*stored, std::nullopt};
    if (!clear_object(file, size))
        return std::nullopt;
    std::optional<std::size_t> index = choose_size(requested_entries, path);
    if (!index)
        return std::nullopt;
    return table_choice{shmht_sizes[*index], index};
}

// A new object's zeros are holes that the kernel promises, not zeros written by hand.
bool size_object(int file, std::uint64_t size)
{
    if (ftruncate(file, static_cast<off_t>(size)) == 0)
        return true;
    attest_trace_as(CREATE, "ftruncate failed\n");
    return false;
}

std::unique_ptr<shmht_handle> map_table(unique_fd file, std::uint64_t bucket_count)
{
    std::unique_ptr<shmht_handle> handle(new (std::nothrow) shmht_handle);
    if (!handle) {
        attest_trace_as(CREATE, "hash table alloc failed \n");
        return nullptr;
    }
    shm_object &object = handle->object;
    object.file = std::move(file);
    if (!shm_object_map(object, shmht_object_size(bucket_count))) {
        attest_trace_as(CREATE, "mmapfailed\n");
        return nullptr;
    }
    if (!shm_object_track_pages(object)) {
        attest_trace_as(CREATE, "hash table alloc failed \n");
        return nullptr;
    }
    if (!shm_object_back(object, object.base, sizeof(shmht_header))) {
        attest_trace_as(CREATE, "no memory for the hash table\n");
        return nullptr;
    }
    handle->header = reinterpret_cast<shmht_header *>(object.base);
    handle->buckets = reinterpret_cast<shmht_entry *>(object.base + sizeof(shmht_header));
    handle->overflow = handle->buckets + bucket_count;
    handle->bucket_count = bucket_count;
    return handle;
}

int get_semaphores(const char *path)
{
    key_t key = ftok(path, SEM_PROJECT);
    if (key == -1) {
        attest_trace_as(CREATE, "ftok: ");
        return -1;
    }
    attest_trace_as(CREATE, "SEM Key created %ld \n", static_cast<long>(key));
    return at_sem_get(CREATE, key);
}

// bucket_count comes last: with it the object is a table, and a creator that dies before it leaves none.
void write_header(shmht_handle &handle, int semid, std::size_t size_index)
{
    shmht_header &header = *handle.header;
    header.semid = static_cast<std::uint32_t>(semid);
    header.shm_fd = handle.object.file.get();
    header.entry_count = 0;
    header.collision_count = 0;
    header.size_index = size_index;
    shm_store(header.bucket_count, handle.bucket_count);
}

} // namespace

shmht_handle *at_create_shmht(const char *name, const char *path, std::uint64_t requested_entries)
{
    if (requested_entries > SHMHT_REQUEST_MAX)
        return nullptr;
    unique_fd file = open_object(name);
    if (!file || !lock_object(file.get()))
        return nullptr;
    int fd = file.get();
    std::optional<table_choice> table = find_table(fd, path, requested_entries);
    if (!table)
        return nullptr;
    attest_trace("Set number of IMA hash table entries to %lu\n", table->bucket_count);
    std::uint64_t size = shmht_object_size(table->bucket_count);
    if (table->new_size_index && !size_object(fd, size))
        return nullptr;
    attest_trace("create_shmht: The shmem id is: %d\n The size is %lu \n", fd, size);
    std::unique_ptr<shmht_handle> handle = map_table(std::move(file), table->bucket_count);
    if (!handle)
        return nullptr;
    if (table->new_size_index)
        attest_trace("create_shmht: set to zero\n");
    int semid = get_semaphores(path);
    if (semid < 0)
        return nullptr;
    if (table->new_size_index)
        write_header(*handle, semid, *table->new_size_index);
    else // the set may have been removed since
        shm_store(handle->header->semid, static_cast<std::uint32_t>(semid));
    flock(fd, LOCK_UN);
    return handle.release();
}
