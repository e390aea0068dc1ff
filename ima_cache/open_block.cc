// Opening a block, and making it where it does not exist.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "agent/system_messages.h"
#include "ima_cache/cache_block.h"
#include "ima_cache/cache_context.h"
#include "ima_cache/file_io.h"

namespace {

constexpr char OPEN[] = "open_cache_block";
constexpr mode_t BLOCK_MODE = 0600;

// In pieces larger than a page: the kernel then keeps the file in larger pieces, too, and all that is read of
// it later, twice in every append, comes cheaper. Ends at the first write that fails.
bool fill_with_zeros(int fd)
{
    static std::array<std::byte, 65'536> zeros{};
    std::uint64_t size = at_ima_cache_limits.block_size;
    for (std::uint64_t offset = 0; offset < size; offset += zeros.size()) {
        auto piece =
            std::span<const std::byte>(zeros).first(std::min<std::uint64_t>(zeros.size(), size - offset));
        if (!write_or_blank(fd, piece, static_cast<off_t>(offset)))
            return false;
    }
    return true;
}

bool write_first_header(int fd)
{
    cache_block_hdr header{};
    header.version = IMA_CACHE_BLOCK_VERSION;
    header.used_len = CACHE_BLOCK_HDR_LEN;
    header.create_time = std::time(nullptr);
    return write_or_blank(fd, bytes_of(header), 0);
}

// The block gets its name last: a process that dies before leaves no block, not one that is half made.
unique_fd make_block(std::uint8_t index, const cache_path &unfinished, const cache_path &path, int flags)
{
    unique_fd file = open_file(unfinished.text, flags | O_CREAT | O_TRUNC | O_NOFOLLOW, BLOCK_MODE);
    if (!file)
        return file;
    scope_exit discard([&] {
        file.reset();
        remove_block(unfinished.text);
        clear_block_entry(index);
    });
    if (int error = reserve(file.get(), static_cast<off_t>(at_ima_cache_limits.block_size)); error != 0) {
        if (error == ENOSPC)
            raise_system_message(msg_rec_attestation_agent_ima_disk_cache_full, path.text);
        return unique_fd();
    }
    if (!fill_with_zeros(file.get()) || !write_first_header(file.get()) ||
        std::rename(unfinished.text, path.text) != 0) {
        attest_trace_as(OPEN, "Failed to write block header %s", path.text);
        return unique_fd();
    }
    discard.dismiss();
    return file;
}

unique_fd open_existing(std::uint8_t index, const cache_path &path, int flags)
{
    unique_fd file = open_file(path.text, flags, BLOCK_MODE);
    if (!file)
        return file;
    cache_block_hdr header{};
    if (read_at(file.get(), writable_bytes_of(header), 0) != 1) {
        attest_trace_as(OPEN, "Failed to read block header %s", path.text);
        return unique_fd();
    }
    if (validate_block(index, path.text, &header) != 1) {
        attest_trace_as(OPEN, "Found invalid block %s", path.text);
        file.reset();
        validate_all_blocks();
    }
    return file;
}

unique_fd open_or_make(std::uint8_t index, int flags, int create)
{
    cache_path path;
    cache_path unfinished;
    std::uint8_t cur_block = 0;
    {
        metadata_lock lock = metadata_lock::read();
        if (!lock)
            return unique_fd();
        path = block_path(*ima_cache_ctx.meta, index);
        unfinished = new_block_path(*ima_cache_ctx.meta);
        cur_block = ima_cache_ctx.meta->cur_block;
    }
    bool missing = is_missing(path.text);
    if (missing && create == 1)
        return make_block(index, unfinished, path, flags);
    if (missing && index <= cur_block)
        validate_all_blocks();
    return open_existing(index, path, flags);
}

} // namespace

int open_cache_block(std::uint8_t index, std::uint32_t offset, int flags, int create)
{
    if (index >= IMA_CACHE_MAX_BLOCKS)
        return -1;
    unique_fd file = open_or_make(index, flags, create);
    if (file && lseek(file.get(), offset, SEEK_SET) < 0)
        file.reset();
    return file.release();
}
