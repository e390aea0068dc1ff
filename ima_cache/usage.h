// How full the cache is, for who watches.
#pragma once

#include <cstdint>

struct ima_cache_usage {
    std::uint64_t blocks; // that hold events
    std::uint64_t events;
    std::uint64_t bytes; // that their files take up on disk
};

// False, with zeros, when there is no cache or its metadata cannot be locked.
bool at_ima_cache_usage(ima_cache_usage *usage);
