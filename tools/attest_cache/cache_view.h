// A cache as somebody sees it who only reads: the metadata under the read lock, the files without any.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ima_cache/cache_metadata.h"

struct block_view {
    unsigned index = 0;
    std::string path;
    std::string problem; // not empty: why the file is no block; then only `file_size` counts of what follows
    std::uint64_t file_size = 0;
    cache_block_hdr header{};
    bool immutable = false;
};

struct cache_view {
    std::optional<ima_cache_meta> meta; // none for a directory that is looked at by itself
    std::string directory;
    std::vector<block_view> blocks; // the files that there are, in order
};

// Reads the metadata of this machine's cache; `problem` says why there are none.
std::optional<ima_cache_meta> read_metadata(std::string &problem);

// Looks at the directory's blocks: their headers, hashes and sizes. A block that is being appended to is
// looked at again until it holds still.
void look_at_blocks(cache_view &cache);

// What is wrong inside the block, by its chunks; empty when nothing is.
std::string check_chunks(const block_view &block);

inline std::uint64_t last_event_of(const cache_block_hdr &header)
{
    return header.first_event + header.event_count - 1;
}
