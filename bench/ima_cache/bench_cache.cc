#include "bench/ima_cache/bench_cache.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <sys/mman.h>

namespace {
char template_name[] = "ima-sig";
char digest_algo[] = "sha256";
} // namespace

void require(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "ima_cache_bench: %s\n", what);
        std::exit(1);
    }
}

bench_chunk::bench_chunk(std::size_t spread) : paths_(MAX_IMA_EVENTS), events_(MAX_IMA_EVENTS)
{
    std::mt19937 random(1);
    for (std::uint8_t &byte : bytes_)
        byte = static_cast<std::uint8_t>(random());
    for (std::size_t i = 0; i < MAX_IMA_EVENTS; ++i) {
        paths_[i] = "/usr/lib/x86_64-linux-gnu/";
        std::size_t length = paths_[i].size() + random() % spread;
        while (paths_[i].size() < length)
            paths_[i] += static_cast<char>('a' + random() % 26);
        IMA_EVENT &event = events_[i];
        event.present = (IMA_EVENT::has_duplicate << 1) - 1;
        event.template_name = template_name;
        event.event_name = paths_[i].data();
        event.digest = {bytes_.data(), 32};
        event.digest_algo = digest_algo;
        event.template_hash = {bytes_.data(), 20};
        event.pcr = 10;
        event.signature = {bytes_.data(), bytes_.size()};
        if (i % 2 == 0)
            event.present &= ~IMA_EVENT::has_signature;
    }
}

void bench_chunk::number_from(std::uint64_t first)
{
    for (IMA_EVENT &event : events_)
        event.event_num = first++;
}

IMACacheBlock bench_chunk::message()
{
    return {IMACacheBlock::has_events, {events_.data(), MAX_IMA_EVENTS}};
}

void bench_chunk::add()
{
    std::uint64_t last_event = ima_cache_ctx.meta->last_event;
    number_from(last_event + 1);
    require(at_ima_cache_add(events_.data(), MAX_IMA_EVENTS, last_event * 200,
                             (last_event + MAX_IMA_EVENTS) * 200) == 1,
            "a chunk was refused");
}

bench_chunk &usual_chunk()
{
    static bench_chunk chunk(80);
    return chunk;
}

void start_cache(std::uint64_t chunks_in_block)
{
    shm_unlink(IMA_CACHE_META_NAME);
    at_ima_cache_limits = {};
    if (chunks_in_block != CHUNKS_IN_BLOCK) {
        at_ima_cache_limits.block_events = chunks_in_block * MAX_IMA_EVENTS;
        at_ima_cache_limits.block_size = chunks_in_block * 651'004 + CACHE_BLOCK_HDR_LEN;
    }
    require(at_ima_cache_init() == 1, "the cache does not start");
}

std::string bench_block_path(unsigned index)
{
    return block_path(*ima_cache_ctx.meta, index).text;
}
