// What attest-cache does with a cache.
#pragma once

#include <string>
#include <vector>

#include "tools/attest_cache/cache_view.h"

enum : int { EXIT_SOUND = 0, EXIT_NOT_SOUND = 1, EXIT_USAGE = 2, EXIT_NO_CACHE = 3 };

// The blocks as a table, and how full the cache is.
void print_table(const cache_view &cache);

// Everything that is wrong with the cache, a line each.
std::vector<std::string> find_faults(const cache_view &cache);
