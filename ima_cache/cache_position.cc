// Where the cache ends, and where in the kernel's list its blocks begin. Metadata that cannot be brought up
// to date still name true, only earlier, places of the list: that failure is ignored here.
#include "ima_cache/cache_context.h"
#include "ima_cache/ima_cache.h"

std::int32_t at_ima_cache_get_last_offset(std::uint64_t *tail_offset, std::uint64_t *last_event)
{
    if (tail_offset == nullptr || last_event == nullptr)
        return -1;
    (void)metadata_follow_blocks();
    metadata_lock lock = metadata_lock::read();
    if (!lock)
        return -1;
    *tail_offset = ima_cache_ctx.meta->tail_offset;
    *last_event = ima_cache_ctx.meta->last_event;
    return 1;
}

std::int32_t at_ima_cache_find_file_offset(std::uint64_t event, std::uint64_t *event_out,
                                           std::uint64_t *offset_out)
{
    if (event_out == nullptr || offset_out == nullptr)
        return -1;
    (void)metadata_follow_blocks();
    metadata_lock lock = metadata_lock::read();
    if (!lock)
        return -1;
    const ima_cache_meta &meta = *ima_cache_ctx.meta;
    if (meta.last_event <= event) {
        *event_out = meta.last_event;
        *offset_out = meta.tail_offset;
        return 1;
    }
    for (unsigned i = 0; i < IMA_CACHE_MAX_BLOCKS && i <= meta.cur_block; ++i) {
        const ima_cache_block_info &block = meta.blocks[i];
        // The current block has no entry before its first chunk.
        if (block.first_event == 0 || event < block.first_event)
            break;
        *event_out = block.first_event;
        *offset_out = block.start_offset;
    }
    return 1;
}
