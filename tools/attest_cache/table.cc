#include <cstdio>
#include <sys/statvfs.h>

#include "tools/attest_cache/commands.h"

namespace {

const char *sealed(const block_view &block)
{
    if (block.header.end_time == 0)
        return "no";
    return block.immutable ? "yes" : "writable"; // sealed on a file system that knows no immutable files
}

void print_block(const block_view &block)
{
    const cache_block_hdr &header = block.header;
    std::printf("%5u %12lu %12lu %14lu %14lu %12lu %-9s %s\n", block.index,
                static_cast<unsigned long>(header.first_event),
                static_cast<unsigned long>(header.event_count == 0 ? 0 : last_event_of(header)),
                static_cast<unsigned long>(header.start_offset),
                static_cast<unsigned long>(header.end_offset), static_cast<unsigned long>(block.file_size),
                sealed(block), block.problem.empty() ? "ok" : block.problem.c_str());
}

} // namespace

void print_table(const cache_view &cache)
{
    std::printf("%s\n\n%5s %12s %12s %14s %14s %12s %-9s %s\n", cache.directory.c_str(), "block",
                "first event", "last event", "from offset", "to offset", "bytes", "sealed", "hash");
    std::uint64_t events = 0;
    std::uint64_t bytes = 0;
    for (const block_view &block : cache.blocks) {
        print_block(block);
        events += block.problem.empty() ? block.header.event_count : 0;
        bytes += block.file_size;
    }
    constexpr std::uint64_t most = IMA_CACHE_MAX_BLOCKS * IMA_CACHE_BLOCK_EVENTS;
    std::printf("\n%zu of %u blocks, %lu events of %lu (%.1f %%), %lu bytes\n", cache.blocks.size(),
                IMA_CACHE_MAX_BLOCKS, static_cast<unsigned long>(events), static_cast<unsigned long>(most),
                100.0 * static_cast<double>(events) / static_cast<double>(most),
                static_cast<unsigned long>(bytes));
    struct statvfs disk {};
    if (statvfs(cache.directory.c_str(), &disk) == 0)
        std::printf("the disk has room for %lu more blocks\n",
                    static_cast<unsigned long>(disk.f_bavail * disk.f_frsize / IMA_CACHE_BLOCK_SIZE));
}
