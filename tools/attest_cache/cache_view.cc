#include "tools/attest_cache/cache_view.h"

#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include "ima_cache/cache_block.h"
#include "ima_cache/cache_context.h"
#include "ima_cache/file_io.h"
#include "ima_cache/read.h"
#include "ima_cache/semaphore_lock.h"

namespace {

// How often a block that changes while it is hashed is hashed again. An append takes about as long.
constexpr int LOOKS = 20;

bool copy_under_lock(const void *mapped, ima_cache_meta &meta)
{
    int semid = semget(ftok(IMA_CACHE_META_PATH, SEM_PROJECT), SEM_COUNT, 0);
    if (semid < 0 || at_sem_rdlock(semid) != 0)
        return false;
    std::memcpy(&meta, mapped, sizeof meta);
    at_sem_rdunlock(semid);
    return true;
}

bool is_immutable(int fd)
{
    int flags = 0;
    return ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL) != 0;
}

std::string file_problem(const block_view &block)
{
    if (block.header.version != IMA_CACHE_BLOCK_VERSION)
        return "another version";
    if (block.header.used_len < CACHE_BLOCK_HDR_LEN || block.header.used_len > block.file_size)
        return "cut off";
    return {};
}

// One look; true when the block held still during it.
bool look_at_block(int fd, block_view &block)
{
    struct stat file {};
    if (fstat(fd, &file) != 0 || read_at(fd, writable_bytes_of(block.header), 0) != 1) {
        block.problem = "no header";
        return true;
    }
    block.file_size = static_cast<std::uint64_t>(file.st_size);
    block.problem = file_problem(block);
    if (!block.problem.empty())
        return true;
    auto index = static_cast<std::uint8_t>(block.index);
    sha256_digest digest{};
    if (calculate_cache_block_hash(block.path.c_str(), index, block.header.used_len, digest) != 1)
        block.problem = "not readable";
    else if (digest != block.header.block_hash)
        block.problem = "another hash";
    cache_block_hdr now{};
    return read_at(fd, writable_bytes_of(now), 0) != 1 || std::memcmp(&now, &block.header, sizeof now) == 0;
}

} // namespace

std::optional<ima_cache_meta> read_metadata(std::string &problem)
{
    unique_fd object(shm_open(IMA_CACHE_META_NAME, O_RDONLY, 0));
    struct stat state {};
    if (!object || fstat(object.get(), &state) != 0) {
        problem = std::string("no cache has been started in this boot: ") + IMA_CACHE_META_PATH + ": " +
                  std::strerror(errno);
        return std::nullopt;
    }
    ima_cache_meta meta{};
    if (state.st_size != sizeof meta) {
        problem = "the metadata have another size";
        return std::nullopt;
    }
    void *mapped = mmap(nullptr, sizeof meta, PROT_READ, MAP_SHARED, object.get(), 0);
    bool copied = mapped != MAP_FAILED && copy_under_lock(mapped, meta);
    if (mapped != MAP_FAILED)
        munmap(mapped, sizeof meta);
    if (!copied)
        problem = "the metadata cannot be locked";
    else if (!metadata_are_sound(meta))
        problem = "the metadata are half made or contradict themselves";
    return problem.empty() ? std::optional(meta) : std::nullopt;
}

void look_at_blocks(cache_view &cache)
{
    ima_cache_ctx.block_hash_chain = {};
    for (unsigned index = 0; index < IMA_CACHE_MAX_BLOCKS; ++index) {
        block_view block;
        block.index = index;
        block.path = cache.directory + "/" + IMA_CACHE_PREFIX + std::to_string(index);
        if (is_missing(block.path.c_str()))
            continue;
        unique_fd file = open_file(block.path.c_str(), O_RDONLY);
        if (!file)
            block.problem = std::strerror(errno);
        for (int look = 0; file && look < LOOKS && !look_at_block(file.get(), block); ++look) {
        }
        block.immutable = file && is_immutable(file.get());
        ima_cache_ctx.block_hash_chain[index] = block.header.block_hash;
        cache.blocks.push_back(block);
    }
}

std::string check_chunks(const block_view &block)
{
    unique_fd file = open_file(block.path.c_str(), O_RDONLY);
    if (!file)
        return std::strerror(errno);
    std::uint64_t events = 0;
    std::uint64_t offset = CACHE_BLOCK_HDR_LEN;
    while (offset < block.header.used_len) {
        owned_message<IMACacheBlock> message;
        cache_chunk_len length = 0;
        if (read_at(file.get(), writable_bytes_of(length), static_cast<off_t>(offset)) != 1 ||
            read_events(static_cast<std::uint32_t>(offset), file.get(), message.get()) != 1)
            return "the chunk behind " + std::to_string(events) + " events cannot be read";
        events += message->events.count;
        offset += sizeof length + length;
    }
    if (events != block.header.event_count)
        return std::to_string(events) + " events instead of " + std::to_string(block.header.event_count);
    return {};
}
