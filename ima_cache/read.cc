// Reading: a cursor over the chunks.
#include "ima_cache/read.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "ima_cache/cache_block.h"
#include "ima_cache/cache_context.h"
#include "ima_cache/file_io.h"
#include "ima_cache/ima_cache.h"

namespace {

constexpr std::uint64_t MOST_CHUNKS =
    IMA_CACHE_BLOCK_EVENTS / MAX_IMA_EVENTS; // of a block, whatever its header says

void close_cursor(std::int32_t *fd)
{
    if (*fd > 0)
        close(*fd);
    *fd = -1;
}

bool read_header(int fd, cache_block_hdr &header)
{
    return read_at(fd, writable_bytes_of(header), 0) == 1;
}

// Walks over the chunks from the first one on, over `count` of them or until `end`. False when a length
// cannot be read or leads outside the block; `offset` is where the walk got to.
bool walk_chunks(int fd, const cache_block_hdr &header, std::uint64_t count, std::uint32_t end,
                 std::uint32_t &offset, std::uint64_t &walked)
{
    offset = CACHE_BLOCK_HDR_LEN;
    for (walked = 0; walked < count && offset < end; ++walked) {
        cache_chunk_len length = 0;
        if (read_at(fd, writable_bytes_of(length), offset) != 1 || length == 0 ||
            std::uint64_t{offset} + sizeof length + length > header.used_len)
            return false;
        offset += static_cast<std::uint32_t>(sizeof length) + length;
    }
    return true;
}

// The number of the first event of the chunk at `offset`, by its place in the block. False when no chunk
// begins there.
bool event_at(int fd, const cache_block_hdr &header, std::uint32_t offset, std::uint64_t &event)
{
    std::uint32_t reached = 0;
    std::uint64_t chunk = 0;
    if (!walk_chunks(fd, header, std::min(header.event_count / MAX_IMA_EVENTS, MOST_CHUNKS), offset, reached,
                     chunk) ||
        reached != offset)
        return false;
    event = header.first_event + chunk * MAX_IMA_EVENTS;
    return true;
}

bool holds_events_from(const IMACacheBlock &message, std::uint64_t first_event)
{
    if (message.events.count != MAX_IMA_EVENTS)
        return false;
    for (std::uint64_t i = 0; i < MAX_IMA_EVENTS; ++i) {
        if (message.events.items[i].event_num != first_event + i)
            return false;
    }
    return true;
}

// Decodes `length` bytes, from the descriptor's position on.
bool decode_chunk(int fd, std::size_t length, std::uint64_t first_event, IMACacheBlock *message)
{
    malloc_ptr<std::byte> payload(static_cast<std::byte *>(std::malloc(length)));
    off_t position = lseek(fd, 0, SEEK_CUR);
    if (!payload || position < 0 || read_at(fd, {payload.get(), length}, position) != 1 ||
        lseek(fd, position + static_cast<off_t>(length), SEEK_SET) < 0)
        return false;
    // Bytes that are no chunk of ours must not become more events than one has.
    if (!message_decode(message_descriptor_of<IMACacheBlock>(), {payload.get(), length}, message,
                        MAX_IMA_EVENTS * sizeof(IMA_EVENT)))
        return false;
    if (holds_events_from(*message, first_event))
        return true;
    message_release(*message);
    attest_trace_as("read_events", "the chunk does not hold the events from %lu on", first_event);
    return false;
}

// The first block whose events end behind `event`. False when there is none or no lock.
bool find_entry(std::uint64_t event, std::uint8_t &index)
{
    metadata_lock lock = metadata_lock::read();
    if (!lock)
        return false;
    const ima_cache_meta &meta = *ima_cache_ctx.meta;
    if (meta.last_event < event)
        attest_trace_as("at_ima_cache_find_block", "%lu attempt to read beyond current cache content %lu",
                        event, std::uint64_t{meta.last_event});
    for (unsigned i = 0; i < IMA_CACHE_MAX_BLOCKS && i <= meta.cur_block; ++i) {
        if (event < meta.blocks[i].first_event + meta.blocks[i].event_count) {
            index = static_cast<std::uint8_t>(i);
            return true;
        }
    }
    return false;
}

// Whether there is a block behind the one that was read, or the cache ends here: its current block may not
// have been started, which is no reason to look for a lost one. False without the lock.
bool find_next(std::uint8_t next, bool &exists)
{
    cache_path path;
    {
        metadata_lock lock = metadata_lock::read();
        if (!lock)
            return false;
        const ima_cache_meta &meta = *ima_cache_ctx.meta;
        exists = next <= meta.cur_block && next < IMA_CACHE_MAX_BLOCKS;
        if (!exists || meta.blocks[next].event_count != 0)
            return true;
        path = block_path(meta, next);
    }
    exists = !is_missing(path.text);
    return true;
}

// Goes on in the next block.
std::int32_t read_from_next_block(IMACacheBlock *message, std::uint8_t *block, std::uint32_t *offset,
                                  std::int32_t *fd)
{
    close_cursor(fd);
    auto next = static_cast<std::uint8_t>(*block + 1);
    bool exists = false;
    if (!find_next(next, exists))
        return -1;
    *block = next;
    *offset = 0;
    unique_fd file;
    if (exists)
        file.reset(open_cache_block(next, 0, O_RDONLY, 0));
    if (!file)
        return 0;
    *offset = CACHE_BLOCK_HDR_LEN;
    *fd = file.release();
    return read_events(*offset, *fd, message);
}

std::int32_t at_ima_cache_find_next_block(IMACacheBlock *message, std::uint8_t *block, std::uint32_t *offset,
                                          std::int32_t *fd)
{
    off_t position = lseek(*fd, 0, SEEK_CUR);
    cache_block_hdr header{};
    if (position < 0 || !read_header(*fd, header)) {
        attest_trace("Invalid args, block is not readable %u", *block);
        close_cursor(fd);
        return -1;
    }
    if (position >= header.used_len)
        return read_from_next_block(message, block, offset, fd);
    *offset = static_cast<std::uint32_t>(position);
    return read_events(*offset, *fd, message);
}

} // namespace

std::int32_t at_ima_cache_find_block(std::uint64_t event, std::uint8_t *block, std::uint32_t *offset,
                                     std::int32_t *fd)
{
    *block = 0;
    *offset = 0;
    *fd = 0;
    if (!metadata_follow_blocks() || !find_entry(event, *block))
        return -1;
    unique_fd file(open_cache_block(*block, 0, O_RDONLY, 0));
    cache_block_hdr header{};
    if (!file || !read_header(file.get(), header)) {
        *fd = -1;
        return -1;
    }
    std::uint64_t chunks_before =
        event > header.first_event ? (event - header.first_event) / MAX_IMA_EVENTS : 0;
    std::uint64_t walked = 0;
    if (!walk_chunks(file.get(), header, std::min(chunks_before, MOST_CHUNKS), header.used_len, *offset,
                     walked)) {
        *block = 0;
        *fd = -1;
        return -1;
    }
    *fd = file.release();
    return 1;
}

std::int32_t read_events(std::uint32_t offset, std::int32_t fd, IMACacheBlock *message)
{
    if (message == nullptr || fd < 0) {
        attest_trace("Invalid args");
        return -1;
    }
    cache_chunk_len length = 0;
    cache_block_hdr header{};
    if (lseek(fd, offset + static_cast<off_t>(sizeof length), SEEK_SET) < 0 ||
        read_at(fd, writable_bytes_of(length), offset) != 1) {
        attest_trace("Failed to read chunk at offset %ld", static_cast<long>(offset));
        return -1;
    }
    if (length == 0)
        return 0;
    if (!read_header(fd, header))
        return -1;
    // Behind used_len lies what no hash covers: a chunk whose append was cut off.
    if (offset >= header.used_len)
        return 0;
    std::uint64_t first_event = 0;
    if (std::uint64_t{offset} + sizeof length + length > header.used_len ||
        !event_at(fd, header, offset, first_event)) {
        attest_trace("no chunk of the block at offset %ld", static_cast<long>(offset));
        return -1;
    }
    return decode_chunk(fd, length, first_event, message) ? 1 : -1;
}

std::int32_t at_ima_cache_read_start(std::uint64_t event, IMACacheBlock *message, std::uint8_t *block,
                                     std::uint32_t *offset, std::int32_t *fd)
{
    if (message == nullptr || block == nullptr || offset == nullptr || fd == nullptr) {
        attest_trace("Invalid args");
        return -1;
    }
    if (at_ima_cache_find_block(event, block, offset, fd) != 1)
        return -1;
    return read_events(*offset, *fd, message) == 1 ? 1 : -1;
}

std::int32_t at_ima_cache_read_next(IMACacheBlock *message, std::uint8_t *block, std::uint32_t *offset,
                                    std::int32_t *fd)
{
    if (message == nullptr || block == nullptr || offset == nullptr || fd == nullptr) {
        attest_trace("Invalid args");
        return -1;
    }
    std::int32_t result = at_ima_cache_find_next_block(message, block, offset, fd);
    if (result == 0)
        close_cursor(fd);
    return result;
}

void at_ima_cache_read_done(std::uint8_t *block, std::uint32_t *offset, std::int32_t *fd)
{
    if (block == nullptr || offset == nullptr || fd == nullptr) {
        attest_trace("Invalid args");
        return;
    }
    *block = 0;
    *offset = 0;
    close_cursor(fd);
}
