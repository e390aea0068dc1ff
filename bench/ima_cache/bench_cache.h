// Caches to measure on, and the chunks that fill them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ima_cache/cache_context.h"
#include "ima_cache/ima_cache.h"

inline constexpr std::uint64_t CHUNKS_IN_BLOCK = IMA_CACHE_BLOCK_EVENTS / MAX_IMA_EVENTS;

// The 1000 events of one chunk, as a node's list has them: template ima-sig, SHA-256, a signature at every
// other one. They are given other numbers for every chunk.
class bench_chunk {
public:
    // Paths of 20 bytes and up to `spread` more.
    explicit bench_chunk(std::size_t spread);

    void number_from(std::uint64_t first);
    IMACacheBlock message();
    // Offers it behind the cache's last event.
    void add();

private:
    std::vector<std::string> paths_;
    std::array<std::uint8_t, 72> bytes_{}; // of every digest, hash and signature
    std::vector<IMA_EVENT> events_;
};

bench_chunk &usual_chunk();

// An empty cache, as a boot begins, with blocks of so many chunks.
void start_cache(std::uint64_t chunks_in_block = CHUNKS_IN_BLOCK);

std::string bench_block_path(unsigned index);

void require(bool holds, const char *what);
