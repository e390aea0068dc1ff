// The hash of a block, computed and written.
#define OPENSSL_SUPPRESS_DEPRECATED // SHA256_*: the digest without a context from the heap

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <openssl/sha.h>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "ima_cache/cache_block.h"
#include "ima_cache/cache_context.h"
#include "ima_cache/file_io.h"

static_assert(sizeof(sha256_digest) == SHA256_DIGEST_LENGTH);

namespace {

constexpr std::size_t PIECE = 4096;

// False when the file cannot be read.
bool hash_file(SHA256_CTX &hash, int fd, std::uint32_t used_len)
{
    static std::array<std::byte, PIECE> buffer;
    std::size_t left = used_len > CACHE_BLOCK_HASHED_FROM ? used_len - CACHE_BLOCK_HASHED_FROM : 0;
    while (left > 0) {
        std::size_t piece = std::min(left, PIECE);
        ssize_t got = uninterrupted([=] { return read(fd, buffer.data(), piece); });
        if (got < 0)
            return false;
        if (got == 0)
            break;
        SHA256_Update(&hash, buffer.data(), static_cast<std::size_t>(got));
        left -= static_cast<std::size_t>(got);
    }
    return true;
}

} // namespace

std::int32_t calculate_cache_block_hash(const char *path, std::uint8_t index, std::uint32_t used_len,
                                        sha256_digest &out)
{
    if (index >= IMA_CACHE_MAX_BLOCKS)
        return -1;
    static constexpr sha256_digest no_predecessor{};
    const sha256_digest &previous = index == 0 ? no_predecessor : ima_cache_ctx.block_hash_chain[index - 1];
    unique_fd file = open_file(path, O_RDONLY);
    if (!file) {
        attest_trace("Failed to open %s for hash calc", path);
        return -1;
    }
    if (lseek(file.get(), CACHE_BLOCK_HASHED_FROM, SEEK_SET) < 0)
        return -1;
    SHA256_CTX hash;
    SHA256_Init(&hash);
    SHA256_Update(&hash, previous.data(), previous.size());
    if (!hash_file(hash, file.get(), used_len))
        return -1;
    SHA256_Final(out.data(), &hash);
    return 1;
}

std::int32_t update_block_hash(int fd, cache_block_hdr *header, std::uint8_t index)
{
    if (fd < 0 || header == nullptr || index >= IMA_CACHE_MAX_BLOCKS)
        return -1;
    cache_path path;
    std::uint8_t cur_block = 0;
    if (!read_block_path(index, path, cur_block))
        return -1;
    sha256_digest digest{};
    if (calculate_cache_block_hash(path.text, index, header->used_len, digest) != 1) {
        attest_trace("Failed to calc block hash %s", path.text);
        return -1;
    }
    header->block_hash = digest;
    ima_cache_ctx.block_hash_chain[index] = digest;
    if (!write_or_blank(fd, bytes_of(digest), 0)) {
        attest_trace("Unable to update block header to fd %d", fd);
        return -1;
    }
    return 1;
}

std::int32_t update_cache_block_hdr(int fd, cache_block_hdr *header, std::uint8_t index)
{
    if (fd < 0 || header == nullptr)
        return -1;
    if (!write_or_blank(fd, bytes_of(*header), 0)) {
        attest_trace("Unable to update block header to fd %d", fd);
        return -1;
    }
    return update_block_hash(fd, header, index);
}
