// Appending a chunk.
//
// The order of writes: the chunk; header and hash, or for a chunk that fills its block the metadata's current
// block, the cut to size, header and hash, the immutable flag; last the metadata's counts. A death at any
// point leaves a chunk behind used_len that counts nowhere, or a block that does not verify, or a chunk that
// the next start counts. A failure puts the block back as it was; where that fails too, the metadata are
// behind and are derived from the blocks before anything uses them again.
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <limits>

#include "agent/debug_trace.h"
#include "ima_cache/cache_block.h"
#include "ima_cache/cache_context.h"
#include "ima_cache/file_io.h"
#include "ima_cache/ima_cache.h"

namespace {

constexpr char ADD[] = "at_ima_cache_add";
constexpr std::uint64_t PAYLOAD_USUALLY = 1'646'232; // room for the payload at the first try

struct encoded_chunk {
    malloc_ptr<std::byte> bytes; // length prefix and payload
    std::size_t length = 0;
};

// Encodes into room for `limit` bytes of payload. The payload's length, which may be larger, or -1.
std::int64_t encode_into(const IMACacheBlock &message, std::uint64_t limit, encoded_chunk &chunk)
{
    chunk.bytes.reset(static_cast<std::byte *>(std::malloc(limit + sizeof(cache_chunk_len))));
    if (!chunk.bytes) {
        attest_trace_as(ADD, "Malloc failed");
        return -1;
    }
    return message_encode(message, {chunk.bytes.get() + sizeof(cache_chunk_len), limit});
}

bool encode_chunk(const IMA_EVENT *events, encoded_chunk &chunk)
{
    // The encoder only reads.
    IMACacheBlock message{IMACacheBlock::has_events, {const_cast<IMA_EVENT *>(events), MAX_IMA_EVENTS}};
    std::int64_t length = encode_into(message, PAYLOAD_USUALLY, chunk);
    if (length > static_cast<std::int64_t>(PAYLOAD_USUALLY))
        length = encode_into(message, static_cast<std::uint64_t>(length), chunk);
    if (length < 0)
        return false;
    auto prefix = static_cast<cache_chunk_len>(length);
    std::memcpy(chunk.bytes.get(), &prefix, sizeof prefix);
    chunk.length = static_cast<std::size_t>(length) + sizeof prefix;
    return true;
}

// A chunk with other numbers would never be read.
bool are_consecutive(const IMA_EVENT *events)
{
    for (std::uint64_t i = 0; i < MAX_IMA_EVENTS; ++i) {
        if ((events[i].present & IMA_EVENT::has_event_num) == 0 ||
            events[i].event_num != events[0].event_num + i)
            return false;
    }
    return true;
}

struct cache_end {
    std::uint8_t block = 0;
    bool started = false; // the block has chunks
    std::uint64_t last_event = 0;
};

bool read_cache_end(cache_end &end)
{
    metadata_lock lock = metadata_lock::read();
    if (!lock || ima_cache_ctx.meta->cur_block >= IMA_CACHE_MAX_BLOCKS)
        return false;
    const ima_cache_meta &meta = *ima_cache_ctx.meta;
    end = {meta.cur_block, meta.blocks[meta.cur_block].event_count != 0, meta.last_event};
    return true;
}

struct opened_block {
    std::uint8_t index = 0;
    unique_fd file;
    cache_block_hdr header{};
};

// A block that has chunks and is missing is not made anew: the cache is cut there.
bool open_to_append(const cache_end &end, opened_block &block)
{
    block.index = end.block;
    block.file.reset(open_cache_block(end.block, 0, O_RDWR, end.started ? 0 : 1));
    return block.file.get() > 0 && read_at(block.file.get(), writable_bytes_of(block.header), 0) == 1;
}

bool is_full(const cache_block_hdr &header)
{
    return header.event_count >= at_ima_cache_limits.block_events;
}

// Opens the block that the next chunk goes to.
bool locate_block_to_append(const cache_end &end, opened_block &block)
{
    if (!open_to_append(end, block))
        return false;
    const cache_block_hdr &header = block.header;
    if (header.event_count != 0 && header.first_event + header.event_count - 1 != end.last_event) {
        attest_trace_as(ADD, "block %d ends with another event than the metadata say: %lu", end.block,
                        end.last_event);
        block.file.reset();
        validate_all_blocks();
        return false;
    }
    if (!is_full(header))
        return true;
    block_end(block.index, block.file.get(), &block.header);
    cache_end now;
    return !ima_cache_ctx.metadata_behind && read_cache_end(now) && now.block != block.index &&
           open_to_append(now, block);
}

// Puts the block back as it was before the chunk, in a file whose header may be anything.
void undo_chunk(const opened_block &block, const cache_block_hdr &before)
{
    bool undone = false;
    if (before.used_len == CACHE_BLOCK_HDR_LEN) {
        cache_path path;
        std::uint8_t cur_block = 0;
        undone = read_block_path(block.index, path, cur_block);
        if (undone)
            remove_block(path.text);
    } else {
        undone = write_or_blank(block.file.get(), bytes_of(before), 0);
        ima_cache_ctx.block_hash_chain[block.index] = before.block_hash;
    }
    metadata_lock lock = metadata_lock::write();
    undone = undone && lock;
    if (undone)
        ima_cache_ctx.meta->cur_block = block.index;
    ima_cache_ctx.metadata_behind = !undone;
}

bool count_chunk(const opened_block &block, bool first_chunk)
{
    metadata_lock lock = metadata_lock::write();
    if (!lock)
        return false;
    ima_cache_meta &meta = *ima_cache_ctx.meta;
    // Another start may have cut the cache since its end was read. Then the blocks tell where it ends.
    if (meta.last_event + MAX_IMA_EVENTS != block.header.first_event + block.header.event_count - 1)
        return false;
    ima_cache_block_info &entry = meta.blocks[block.index];
    if (first_chunk)
        entry = {block.header.first_event, 0, block.header.start_offset};
    meta.tail_offset = block.header.end_offset;
    meta.last_event += MAX_IMA_EVENTS;
    entry.event_count += MAX_IMA_EVENTS;
    return true;
}

bool write_block(opened_block &block, const encoded_chunk &chunk)
{
    int fd = block.file.get();
    if (!write_or_blank(fd, {chunk.bytes.get(), chunk.length}, block.header.used_len)) {
        attest_trace_as(ADD, "Unable to write to fd %d", fd);
        return false;
    }
    cache_block_hdr &header = block.header;
    header.event_count += MAX_IMA_EVENTS;
    header.used_len += static_cast<std::uint32_t>(chunk.length);
    return is_full(header) ? seal_block(block.index, fd, &header)
                           : update_cache_block_hdr(fd, &header, block.index) == 1;
}

bool write_chunk_to_cache(opened_block &block, const encoded_chunk &chunk, std::uint64_t first_event,
                          std::uint64_t start_offset, std::uint64_t end_offset)
{
    const cache_block_hdr before = block.header;
    bool first_chunk = before.used_len == CACHE_BLOCK_HDR_LEN;
    if (first_chunk) {
        block.header.first_event = first_event;
        block.header.start_offset = start_offset;
        block.header.create_time = std::time(nullptr);
    }
    block.header.end_offset = end_offset;
    if (!write_block(block, chunk)) {
        undo_chunk(block, before);
        return false;
    }
    ima_cache_ctx.metadata_behind = !count_chunk(block, first_chunk);
    return !ima_cache_ctx.metadata_behind;
}

// Whether the chunk comes next: 1; 0, the cache has it; -1, it does not.
std::int32_t check_place(const cache_end &end, std::uint64_t first_event)
{
    if (first_event < end.last_event) {
        attest_trace_as(ADD, "Chunk already in the cache %lu ", first_event);
        return 0;
    }
    if (first_event != end.last_event + 1) {
        attest_trace_as(ADD, "Attempt to add discontiguos chunk %lu -> %lu ", end.last_event, first_event);
        return -1;
    }
    return 1;
}

} // namespace

std::int32_t at_ima_cache_add(const IMA_EVENT *events, std::uint64_t count, std::uint64_t start_offset,
                              std::uint64_t end_offset)
{
    if (events == nullptr) {
        attest_trace("Invalid arg");
        return -1;
    }
    if (count != MAX_IMA_EVENTS) {
        attest_trace("Event count should be MAX IMA Events for cache chunks ");
        return -1;
    }
    // The place is looked at before the chunk is encoded: most chunks that are offered twice cost nothing.
    std::uint64_t first_event = events[0].event_num;
    cache_end end;
    if (!metadata_follow_blocks() || !read_cache_end(end))
        return -1;
    std::int32_t place = check_place(end, first_event);
    if (place != 1)
        return place;
    encoded_chunk chunk;
    if (!are_consecutive(events) || !encode_chunk(events, chunk)) {
        attest_trace("chunk %lu cannot be stored", first_event);
        return -1;
    }
    opened_block block;
    if (!locate_block_to_append(end, block))
        return -1;
    if (chunk.length > std::numeric_limits<std::uint32_t>::max() - block.header.used_len)
        return -1;
    return write_chunk_to_cache(block, chunk, first_event, start_offset, end_offset) ? 1 : -1;
}
