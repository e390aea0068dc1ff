// The list that the cache is filled from: event numbers decide everything.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ima_cache/ima_cache.h"

// Offset in the list behind an event; 0 behind none.
inline constexpr std::uint64_t offset_behind(std::uint64_t event)
{
    return event * 61;
}

// The 1000 events from `first` on.
class source_chunk {
public:
    explicit source_chunk(std::uint64_t first, std::size_t name_length = 4);
    source_chunk(const source_chunk &) = delete;
    source_chunk &operator=(const source_chunk &) = delete;

    std::uint64_t first;
    std::vector<std::string> names;
    std::vector<std::array<std::uint8_t, 4>> digests;
    std::vector<IMA_EVENT> events;

    // Offers it to the cache.
    std::int32_t add() const;
};

// A walk through the cache, a chunk at a time.
class cache_reader {
public:
    cache_reader() = default;
    ~cache_reader() { done(); }
    cache_reader(const cache_reader &) = delete;
    cache_reader &operator=(const cache_reader &) = delete;

    // The chunk that holds `event`, or the next one, comes into `message`; the results are the cache's.
    std::int32_t start(std::uint64_t event);
    std::int32_t next();
    void done() { at_ima_cache_read_done(&at.block, &at.offset, &at.fd); }

    ima_cache_cursor at{};
    owned_message<IMACacheBlock> message;
};

// What the cache has to give.
struct served_events {
    std::uint64_t count = 0; // from event 1 on, each as in the source
    std::string problem;     // empty: every event was as it must be, and the end is where the cache says
    bool wrong = false;      // the problem is something that was served, not something that was not
};
served_events serve_all();
