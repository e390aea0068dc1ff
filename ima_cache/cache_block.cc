// A block's end, its removal and its check.
#include "ima_cache/cache_block.h"

#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "agent/system_messages.h"
#include "ima_cache/cache_context.h"
#include "ima_cache/file_io.h"

namespace {

// Takes the write lock.
bool advance_current_block(std::uint8_t index)
{
    if (index + 1u >= IMA_CACHE_MAX_BLOCKS)
        return true;
    metadata_lock lock = metadata_lock::write();
    if (!lock)
        return false;
    ima_cache_ctx.meta->cur_block = static_cast<std::uint8_t>(index + 1);
    return true;
}

// The kernel reads and writes an int, whatever the request's name says.
bool get_flags(int fd, int &flags)
{
    return uninterrupted([&] { return ioctl(fd, FS_IOC_GETFLAGS, &flags); }) == 0;
}

bool set_flags(int fd, int flags)
{
    return uninterrupted([&] { return ioctl(fd, FS_IOC_SETFLAGS, &flags); }) == 0;
}

bool is_length_of_file(const char *path, std::uint32_t used_len)
{
    struct stat file {};
    return used_len >= CACHE_BLOCK_HDR_LEN && stat(path, &file) == 0 && used_len <= file.st_size;
}

} // namespace

void make_immutable(int fd)
{
    int flags = 0;
    if (get_flags(fd, flags) && (flags & FS_IMMUTABLE_FL) == 0 && !set_flags(fd, flags | FS_IMMUTABLE_FL))
        attest_trace_as("block_end", "Cannot set the flags to make the block immutable");
}

bool seal_block(std::uint8_t index, int fd, cache_block_hdr *header)
{
    if (!advance_current_block(index))
        return false;
    ima_cache_ctx.metadata_behind = true;
    // A file that keeps its reserve is as good a block.
    std::uint32_t used_len = header->used_len;
    uninterrupted([=] { return ftruncate(fd, used_len); });
    header->end_time = std::time(nullptr);
    if (update_cache_block_hdr(fd, header, index) != 1)
        return false;
    make_immutable(fd);
    ima_cache_ctx.metadata_behind = false;
    return true;
}

void block_end(std::uint8_t index, int fd, cache_block_hdr *header)
{
    seal_block(index, fd, header);
}

void remove_block(const char *path)
{
    // In an earlier boot's directory anything may lie: nothing that leads elsewhere is opened.
    unique_fd file = open_file(path, O_RDONLY | O_NOFOLLOW);
    int flags = 0;
    if (file && get_flags(file.get(), flags) && (flags & FS_IMMUTABLE_FL) != 0 &&
        !set_flags(file.get(), flags & ~FS_IMMUTABLE_FL))
        attest_trace("Cannot unset the flags to to make the block immutable");
    file.reset();
    std::remove(path);
}

std::int32_t validate_block(std::uint8_t index, const char *path, const cache_block_hdr *header)
{
    if (header == nullptr || index >= IMA_CACHE_MAX_BLOCKS)
        return -1;
    const message_record &corrupt = msg_rec_attestation_agent_ima_disk_corrupt_block;
    if (header->version != IMA_CACHE_BLOCK_VERSION) {
        attest_trace("%d block version missmatch ", index);
        raise_system_message(corrupt, path);
        return -1;
    }
    sha256_digest digest{};
    if (!is_length_of_file(path, header->used_len) ||
        calculate_cache_block_hash(path, index, header->used_len, digest) != 1) {
        attest_trace("%d cannot determine block hash %s", index, path);
        raise_system_message(corrupt, path);
        return -1;
    }
    if (digest != header->block_hash) {
        raise_system_message(corrupt, path);
        return -1;
    }
    return 1;
}
