// The check of all blocks, from which the metadata are derived.
#include <fcntl.h>

#include "agent/debug_trace.h"
#include "agent/system_messages.h"
#include "ima_cache/cache_block.h"
#include "ima_cache/cache_context.h"
#include "ima_cache/file_io.h"

namespace {

constexpr char VALIDATE[] = "validate_all_blocks";

// What the good blocks hold so far.
struct cache_sum {
    std::uint64_t events = 0;
    std::uint64_t end_offset = 0;
    // A block could not be read. Whether those behind it are good cannot be known then, nor where the cache
    // ends.
    bool undetermined = false;
};

void cut_at(ima_cache_meta &meta, unsigned index, const cache_sum &sum)
{
    meta.last_event = sum.events;
    meta.tail_offset = sum.end_offset;
    meta.cur_block = static_cast<std::uint8_t>(index);
    meta.blocks[index] = {};
}

void check_missing(ima_cache_meta &meta, unsigned index, const cache_path &path, cache_sum &sum)
{
    attest_trace_as(VALIDATE, "Block not found %s", path.text);
    if (index > meta.cur_block) {
        meta.blocks[index] = {};
        return;
    }
    if (sum.undetermined)
        return;
    attest_trace_as(VALIDATE, "Block is missing, resetting current write block to this %d",
                    static_cast<int>(index));
    if (meta.cur_block != index)
        raise_system_message(msg_rec_attestation_agent_ima_disk_lost_block, path.text);
    cut_at(meta, index, sum);
}

void take_valid(ima_cache_meta &meta, unsigned index, const cache_block_hdr &header, cache_sum &sum)
{
    sum.end_offset = header.end_offset;
    sum.events += header.event_count;
    meta.blocks[index] = {header.first_event, header.event_count, header.start_offset};
    ima_cache_ctx.block_hash_chain[index] = header.block_hash;
    // Nothing can be appended to a sealed block. One is the current block where the cache was cut at it and
    // it could not be deleted, and then turned out to be good.
    bool sealed = header.end_time != 0 && header.event_count >= at_ima_cache_limits.block_events;
    if (sealed && index == meta.cur_block && index + 1 < IMA_CACHE_MAX_BLOCKS)
        meta.cur_block = static_cast<std::uint8_t>(index + 1);
}

void check_expected(ima_cache_meta &meta, unsigned index, const cache_path &path, cache_sum &sum)
{
    cache_block_hdr header{};
    unique_fd file;
    // Behind a block that could not be read no hash can be checked.
    if (!sum.undetermined)
        file = open_file(path.text, O_RDONLY);
    if (!file || read_at(file.get(), writable_bytes_of(header), 0) != 1) {
        attest_trace_as(VALIDATE, "Unable to determine state of the block %s", path.text);
        sum.undetermined = true;
        return;
    }
    if (validate_block(static_cast<std::uint8_t>(index), path.text, &header) == 1) {
        take_valid(meta, index, header, sum);
        if (header.end_time != 0) // a death may have come before the flag
            make_immutable(file.get());
        return;
    }
    file.reset();
    remove_block(path.text);
    cut_at(meta, index, sum);
}

void check_block(ima_cache_meta &meta, unsigned index, cache_sum &sum)
{
    cache_path path = block_path(meta, index);
    if (is_missing(path.text)) {
        check_missing(meta, index, path, sum);
    } else if (index > meta.cur_block) {
        attest_trace_as(VALIDATE, "Found unexpected block %s, deleting", path.text);
        remove_block(path.text);
        meta.blocks[index] = {};
    } else {
        check_expected(meta, index, path, sum);
    }
}

} // namespace

std::int32_t validate_all_blocks()
{
    metadata_lock lock = metadata_lock::write();
    if (!lock)
        return -1;
    ima_cache_meta &meta = *ima_cache_ctx.meta;
    cache_sum sum;
    for (unsigned index = 0; index < IMA_CACHE_MAX_BLOCKS; ++index)
        check_block(meta, index, sum);
    if (sum.undetermined)
        return -1;
    // A chunk whose block was written and whose metadata were not is counted here, and so is not offered
    // again.
    meta.last_event = sum.events;
    meta.tail_offset = sum.end_offset;
    ima_cache_ctx.metadata_behind = false;
    return 1;
}
