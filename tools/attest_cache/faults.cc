#include "tools/attest_cache/commands.h"

namespace {

std::string number(std::uint64_t value)
{
    return std::to_string(value);
}

// The end of what has been looked at so far.
struct cache_end {
    std::uint64_t event = 0;
    std::uint64_t offset = 0;
};

std::string fault_of(const block_view &block, unsigned expected_index, const cache_end &end)
{
    const cache_block_hdr &header = block.header;
    if (block.index != expected_index)
        return "block " + number(expected_index) + " in front of it is missing";
    if (!block.problem.empty())
        return block.problem;
    if (header.event_count == 0 || header.event_count > IMA_CACHE_BLOCK_EVENTS ||
        header.event_count % MAX_IMA_EVENTS != 0)
        return number(header.event_count) + " events";
    if (header.first_event != end.event + 1)
        return "begins with event " + number(header.first_event) + " behind event " + number(end.event);
    if (header.start_offset != end.offset || header.end_offset < header.start_offset)
        return "begins at offset " + number(header.start_offset) + " behind offset " + number(end.offset);
    return check_chunks(block);
}

std::string fault_of_metadata(const ima_cache_meta &meta, const cache_view &cache, const cache_end &end)
{
    if (meta.last_event != end.event || meta.tail_offset != end.offset)
        return "they end with event " + number(meta.last_event) + " at offset " + number(meta.tail_offset) +
               ", the blocks with event " + number(end.event) + " at offset " + number(end.offset);
    for (const block_view &block : cache.blocks) {
        ima_cache_block_info entry = meta.blocks[block.index];
        const cache_block_hdr &header = block.header;
        if (entry.first_event != header.first_event || entry.event_count != header.event_count ||
            entry.start_offset != header.start_offset)
            return "they have another block " + number(block.index);
    }
    // The current block is the last one, or the next when that is full.
    std::size_t blocks = cache.blocks.size();
    if (meta.cur_block != blocks && meta.cur_block + 1u != blocks)
        return "the current block is " + number(meta.cur_block) + " of " + number(blocks);
    return {};
}

} // namespace

std::vector<std::string> find_faults(const cache_view &cache)
{
    std::vector<std::string> faults;
    cache_end end;
    unsigned expected_index = 0;
    for (const block_view &block : cache.blocks) {
        std::string fault = fault_of(block, expected_index, end);
        if (!fault.empty())
            faults.push_back("block " + number(block.index) + ": " + fault);
        expected_index = block.index + 1;
        end = {last_event_of(block.header), block.header.end_offset};
    }
    if (!cache.meta || !faults.empty())
        return faults;
    std::string fault = fault_of_metadata(*cache.meta, cache, end);
    if (!fault.empty())
        faults.push_back("metadata: " + fault);
    return faults;
}
