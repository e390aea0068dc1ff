#include "ima_cache/usage.h"

#include <sys/stat.h>

#include "ima_cache/cache_context.h"

namespace {

constexpr std::uint64_t STAT_BLOCK = 512; // what st_blocks counts in

std::uint64_t bytes_on_disk(const char *path)
{
    struct stat about {};
    return stat(path, &about) == 0 ? static_cast<std::uint64_t>(about.st_blocks) * STAT_BLOCK : 0;
}

} // namespace

bool at_ima_cache_usage(ima_cache_usage *usage)
{
    *usage = {};
    ima_cache_meta copy{};
    {
        metadata_lock lock = metadata_lock::read();
        if (!lock)
            return false;
        copy = *ima_cache_ctx.meta;
    }
    usage->events = copy.last_event;
    for (unsigned index = 0; index < IMA_CACHE_MAX_BLOCKS; ++index) {
        if (copy.blocks[index].event_count == 0)
            continue;
        ++usage->blocks;
        usage->bytes += bytes_on_disk(block_path(copy, index).text);
    }
    return true;
}
