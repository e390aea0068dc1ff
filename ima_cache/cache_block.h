// One block file: made, opened, checked, sealed, deleted; and the check of them all.
//
// Results are 1 for success and -1 for failure. A descriptor is valid when it is greater than 0.
#pragma once

#include <cstdint>

#include "ima_cache/block_format.h"

// The hash of the block at `path` as block `index`, over `used_len` bytes, or up to the end of a shorter
// file.
std::int32_t calculate_cache_block_hash(const char *path, std::uint8_t index, std::uint32_t used_len,
                                        sha256_digest &out);

// Computes the hash from the file, whose header must be written already, puts it into the header, the hash
// chain and the file.
std::int32_t update_block_hash(int fd, cache_block_hdr *header, std::uint8_t index);

// Writes the header, then its hash: a block whose header alone was written does not verify.
std::int32_t update_cache_block_hdr(int fd, cache_block_hdr *header, std::uint8_t index);

// A sealed block is not to be deleted by mistake. Where the file system has no such flag, it stays as it is.
void make_immutable(int fd);

// Seals a full block; the next one becomes the current block, except behind the last. False when the block or
// the metadata could not be written, and then the metadata are behind.
bool seal_block(std::uint8_t index, int fd, cache_block_hdr *header);
// The same, for who looks at the metadata anyway.
void block_end(std::uint8_t index, int fd, cache_block_hdr *header);

// Deletes a file, also a sealed block, or an empty directory.
void remove_block(const char *path);

// Whether `header`, read from the file, and the file are block `index`. If not, the operator is told that the
// block is corrupt.
std::int32_t validate_block(std::uint8_t index, const char *path, const cache_block_hdr *header);

// Opens a block, at `offset`: with `create` 1 makes it if it does not exist. An existing block is verified;
// where it is corrupt, or missing though the metadata have it, the whole cache is (validate_all_blocks). The
// descriptor, which is the caller's; or a value that is not greater than 0.
int open_cache_block(std::uint8_t index, std::uint32_t offset, int flags, int create);

// Checks all blocks and derives the metadata from them. The cache is cut at the first missing or corrupt
// block: it becomes the current one, and the later ones are deleted. -1 when there are no metadata, they
// cannot be locked, or a block cannot be read: that block and those behind it are then left alone, and the
// metadata of the cache's end with them.
std::int32_t validate_all_blocks();
