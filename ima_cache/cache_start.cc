// The start of the cache: new at the first start of a boot, verified at every later one.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fnmatch.h>
#include <ftw.h>
#include <string_view>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "ima_cache/cache_block.h"
#include "ima_cache/cache_context.h"
#include "ima_cache/file_io.h"
#include "ima_cache/ima_cache.h"
#include "ima_cache/semaphore_lock.h"
#include "ima_cache/shm_store.h"

namespace {

constexpr char LOAD[] = "load_shm_meta_block";
constexpr mode_t OBJECT_MODE = 0777;
constexpr int WALK_DESCRIPTORS = 64;

// What one start has made and a failure takes back.
struct start_state {
    unique_fd object;
    bool created = false; // the object is this call's
    bool anew = false;    // the metadata are to be set up
};

void forget_cache()
{
    if (ima_cache_ctx.meta != nullptr)
        munmap(ima_cache_ctx.meta, sizeof(ima_cache_meta));
    ima_cache_ctx = {};
}

bool open_object(start_state &start)
{
    start.object = open_own_object(IMA_CACHE_META_NAME, 0, OBJECT_MODE);
    if (!start.object) {
        attest_trace_as(LOAD, "shm_open failed, perhaps it does not exist \n");
        start.object = open_own_object(IMA_CACHE_META_NAME, O_CREAT, OBJECT_MODE);
        if (!start.object) {
            attest_trace_as(LOAD, "shm_open create failed \n");
            return false;
        }
        start.created = true;
    }
    // Until the start is through others are kept out, so that nobody takes an object that is being set up for
    // one that a dead creator has left half made.
    if (uninterrupted([&] { return flock(start.object.get(), LOCK_EX); }) != 0) {
        attest_trace_as(LOAD, "flock failed\n");
        return false;
    }
    return true;
}

bool object_is_sound(int object)
{
    struct stat state {};
    ima_cache_meta meta{};
    return fstat(object, &state) == 0 && state.st_size == sizeof meta &&
           read_at(object, writable_bytes_of(meta), 0) == 1 && metadata_are_sound(meta);
}

// Its pages are allocated as well: a full file system is a failure here, not a SIGBUS later.
bool size_object(int object)
{
    constexpr off_t size = sizeof(ima_cache_meta);
    if (uninterrupted([=] { return ftruncate(object, size); }) != 0 || reserve(object, size) != 0) {
        attest_trace_as(LOAD, "ftruncate failed\n");
        return false;
    }
    attest_trace_as(LOAD, "Created IMA cache block with id %d, Size %ld", object, static_cast<long>(size));
    return true;
}

bool get_semaphores()
{
    key_t key = ftok(IMA_CACHE_META_PATH, SEM_PROJECT);
    if (key == -1) {
        attest_trace_as(LOAD, "ftok: ");
        return false;
    }
    attest_trace_as(LOAD, "SEM Key created \n");
    ima_cache_ctx.semid = at_sem_get(LOAD, key);
    return ima_cache_ctx.semid >= 0;
}

bool map_object(int object)
{
    void *mapped = mmap(nullptr, sizeof(ima_cache_meta), PROT_READ | PROT_WRITE, MAP_SHARED, object, 0);
    if (mapped == MAP_FAILED) {
        attest_trace_as(LOAD, "mmap failed for %s \n", IMA_CACHE_META_NAME);
        return false;
    }
    ima_cache_ctx.meta = static_cast<ima_cache_meta *>(mapped);
    return true;
}

int remove_old(const char *path, const struct stat *, int, struct FTW *)
{
    char pattern[sizeof IMA_CACHE_ROOT + sizeof IMA_CACHE_PREFIX];
    std::snprintf(pattern, sizeof pattern, "%s%s*", IMA_CACHE_ROOT, IMA_CACHE_PREFIX);
    if (fnmatch(pattern, path, 0) == 0)
        remove_block(path);
    return 0;
}

void remove_old_caches()
{
    std::string_view root = IMA_CACHE_ROOT;
    root.remove_suffix(1);
    char directory[sizeof IMA_CACHE_ROOT];
    std::snprintf(directory, sizeof directory, "%.*s", static_cast<int>(root.size()), root.data());
    // Links are not followed: what they lead to is no cache of ours.
    nftw(directory, remove_old, WALK_DESCRIPTORS, FTW_DEPTH | FTW_PHYS);
}

void name_directory(char (&name)[CACHE_DIR_SIZE])
{
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::snprintf(name, sizeof name, "%s%s%02d%02d%d_%02d%02d%02d", IMA_CACHE_ROOT, IMA_CACHE_PREFIX,
                  local.tm_mday, local.tm_mon + 1, local.tm_year + 1900, local.tm_hour, local.tm_min,
                  local.tm_sec);
}

// The first letter of the directory's name comes last. Without it the metadata are half made, and the next
// start does all of this again; with it, the old caches are gone and only the directory may be missing. An
// empty name takes it back.
bool store_directory(const char (&name)[CACHE_DIR_SIZE])
{
    metadata_lock lock = metadata_lock::write();
    if (!lock)
        return false;
    char(&stored)[CACHE_DIR_SIZE] = ima_cache_ctx.meta->cache_dir;
    shm_store(stored[0], '\0');
    std::memcpy(stored + 1, name + 1, sizeof name - 1);
    shm_store(stored[0], name[0]);
    return true;
}

bool clear_metadata()
{
    metadata_lock lock = metadata_lock::write();
    if (!lock)
        return false;
    ima_cache_meta &meta = *ima_cache_ctx.meta;
    shm_store(meta.cache_dir[0], '\0');
    std::memset(&meta, 0, sizeof meta);
    meta.semid = static_cast<std::uint32_t>(ima_cache_ctx.semid);
    meta.meta_size = sizeof meta;
    return true;
}

bool start_new_cache()
{
    if (!clear_metadata())
        return false;
    remove_old_caches();
    char name[CACHE_DIR_SIZE]{};
    name_directory(name);
    if (!ensure_directory(IMA_CACHE_ROOT) || !store_directory(name))
        return false;
    if (ensure_directory(name)) {
        // The clock may have given the name before, to blocks that could not be deleted: without the first
        // one none of them is taken up.
        const cache_path first = block_path(*ima_cache_ctx.meta, 0);
        remove_block(first.text);
        if (is_missing(first.text))
            return true;
    }
    store_directory({});
    return false;
}

bool take_over_cache()
{
    cache_path unfinished;
    char directory[CACHE_DIR_SIZE];
    {
        metadata_lock lock = metadata_lock::read();
        if (!lock)
            return false;
        std::memcpy(directory, ima_cache_ctx.meta->cache_dir, sizeof directory);
        unfinished = new_block_path(*ima_cache_ctx.meta);
    }
    if (!ensure_directory(directory)) {
        store_directory({});
        return false;
    }
    remove_block(unfinished.text);
    return true;
}

bool load_shm_meta_block(start_state &start)
{
    if (!open_object(start))
        return false;
    start.anew = !object_is_sound(start.object.get());
    if (start.anew && !start.created)
        attest_trace("the metadata are half made or contradict themselves, the cache starts anew\n");
    if (start.anew && !size_object(start.object.get()))
        return false;
    if (!get_semaphores() || !map_object(start.object.get()))
        return false;
    return start.anew ? start_new_cache() : take_over_cache();
}

void take_back(const start_state &start)
{
    if (!start.anew)
        return;
    int semid = ima_cache_ctx.semid;
    forget_cache();
    if (!start.created)
        return;
    if (semid >= 0)
        semctl(semid, 0, IPC_RMID);
    shm_unlink(IMA_CACHE_META_NAME);
}

} // namespace

std::int32_t at_ima_cache_init()
{
    forget_cache();
    start_state start;
    // Closing the file would not give its lock back: the mapping holds on to it as long as the process lives.
    scope_exit let_others_in([&] { flock(start.object.get(), LOCK_UN); });
    bool loaded = load_shm_meta_block(start);
    if (loaded && (start.anew || validate_all_blocks() == 1))
        return 1;
    if (!loaded)
        take_back(start);
    attest_trace("\n IMA Cache init failed ");
    return -1;
}
