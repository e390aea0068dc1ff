// What the cache is measured by: the least that the same work costs.
#pragma once

#include <cstdint>
#include <string>

#include "bench/ima_cache/bench_cache.h"

// OpenSSL's SHA-256 over the file from byte 32 up to `end`, read in pieces of 4096 bytes.
void hash_of_file(const std::string &path, std::uint64_t end);

// Per chunk: two hashes over the bytes that an append's two cover, the encoding, and one write.
void hash_encode_and_write(bench_chunk &chunk, const std::string &path);

// The same chunks in SQLite: a row each, in a transaction each, with all rows of the block verified before it
// and their new hash stored after it.
void fill_sqlite(bench_chunk &chunk, const std::string &path);
