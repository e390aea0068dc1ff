#include "ima_cache/cache_context.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "ima_cache/cache_block.h"
#include "ima_cache/semaphore_lock.h"

ima_cache_context ima_cache_ctx;
ima_cache_limits at_ima_cache_limits;

bool metadata_are_sound(const ima_cache_meta &meta)
{
    if (meta.meta_size != sizeof meta || meta.cur_block >= IMA_CACHE_MAX_BLOCKS)
        return false;
    std::size_t length = strnlen(meta.cache_dir, CACHE_DIR_SIZE);
    std::string_view directory(meta.cache_dir, length);
    constexpr std::string_view root = IMA_CACHE_ROOT;
    if (length == CACHE_DIR_SIZE || !directory.starts_with(root))
        return false;
    std::string_view name = directory.substr(root.size());
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

metadata_lock::metadata_lock(int (*take)(int), int (*release)(int))
{
    if (ima_cache_ctx.meta != nullptr && !ima_cache_ctx.lock_stuck && take(ima_cache_ctx.semid) == 0)
        release_ = release;
}

metadata_lock metadata_lock::read()
{
    return {at_sem_rdlock, at_sem_rdunlock};
}

metadata_lock metadata_lock::write()
{
    return {at_sem_wrlock, at_sem_wrunlock};
}

metadata_lock::~metadata_lock()
{
    if (release_ != nullptr && release_(ima_cache_ctx.semid) != 0)
        ima_cache_ctx.lock_stuck = release_(ima_cache_ctx.semid) != 0;
}

namespace {

cache_path in_directory(const ima_cache_meta &meta, const char *name)
{
    cache_path path;
    // The bound holds also for a text that somebody has damaged since the start.
    std::snprintf(path.text, sizeof path.text, "%.*s/%.30s", static_cast<int>(CACHE_DIR_SIZE - 1),
                  meta.cache_dir, name);
    return path;
}

} // namespace

cache_path block_path(const ima_cache_meta &meta, unsigned index)
{
    char name[sizeof IMA_CACHE_PREFIX + 10];
    std::snprintf(name, sizeof name, "%s%d", IMA_CACHE_PREFIX, static_cast<int>(index));
    return in_directory(meta, name);
}

cache_path new_block_path(const ima_cache_meta &meta)
{
    return in_directory(meta, "new_block");
}

bool read_block_path(unsigned index, cache_path &path, std::uint8_t &cur_block)
{
    metadata_lock lock = metadata_lock::read();
    if (!lock)
        return false;
    path = block_path(*ima_cache_ctx.meta, index);
    cur_block = ima_cache_ctx.meta->cur_block;
    return true;
}

bool clear_block_entry(unsigned index)
{
    metadata_lock lock = metadata_lock::write();
    if (!lock)
        return false;
    ima_cache_ctx.meta->blocks[index] = {};
    return true;
}

bool metadata_follow_blocks()
{
    return !ima_cache_ctx.metadata_behind || validate_all_blocks() == 1;
}
