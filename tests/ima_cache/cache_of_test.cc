#include "tests/ima_cache/cache_of_test.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/sem.h>

#include "ima_cache/cache_block.h"
#include "platform/message_log.h"
#include "tests/support/trace_capture.h"

std::vector<std::string> messages_raised;

void emit_errmsg(const message_record *record, std::uint32_t severity, const char *argument)
{
    EXPECT_EQ(severity, record->severity);
    messages_raised.push_back(std::string(record->mnemonic) + ": " + argument);
}

cache_of_test::cache_of_test()
{
    if (std::getenv("ATTEST_OWN_MACHINE") == nullptr) {
        std::fputs("run it through tests/support/own_machine: it deletes the cache of the machine\n", stderr);
        std::abort();
    }
    at_ima_cache_limits = {CHUNKS * MAX_IMA_EVENTS, 100'000};
    reboot();
    EXPECT_EQ(restart(), 1);
    messages_raised.clear();
    trace_captured.clear();
}

cache_of_test::~cache_of_test()
{
    reboot();
}

void cache_of_test::reboot()
{
    shm_unlink(IMA_CACHE_META_NAME);
    if (ima_cache_ctx.semid >= 0)
        semctl(ima_cache_ctx.semid, 0, IPC_RMID);
}

void cache_of_test::append(unsigned chunks)
{
    for (unsigned i = 0; i < chunks; ++i)
        ASSERT_EQ(source_chunk(ima_cache_ctx.meta->last_event + 1).add(), 1);
}

void cache_of_test::expect_events(std::uint64_t last_event)
{
    served_events served = serve_all();
    EXPECT_EQ(served.problem, "");
    EXPECT_EQ(served.count, last_event);
}

std::string cache_of_test::path_of(unsigned index)
{
    return block_path(*ima_cache_ctx.meta, index).text;
}

std::vector<std::uint8_t> cache_of_test::read_block(unsigned index)
{
    std::error_code none;
    std::uintmax_t size = std::filesystem::file_size(path_of(index), none);
    std::vector<std::uint8_t> bytes(none ? 0 : size);
    std::ifstream file(path_of(index), std::ios::binary);
    file.read(reinterpret_cast<char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

cache_block_hdr cache_of_test::header_of(unsigned index)
{
    cache_block_hdr header{};
    std::vector<std::uint8_t> bytes = read_block(index);
    std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
    return header;
}

sha256_digest cache_of_test::hash_of(const sha256_digest &previous, const std::vector<std::uint8_t> &block)
{
    cache_block_hdr header{};
    std::memcpy(&header, block.data(), sizeof header);
    std::vector<std::uint8_t> hashed(previous.begin(), previous.end());
    hashed.insert(hashed.end(), block.begin() + 32,
                  block.begin() + std::min<std::int64_t>(header.used_len, std::ssize(block)));
    sha256_digest digest{};
    EVP_Digest(hashed.data(), hashed.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
    return digest;
}

void cache_of_test::write_block(unsigned index, const std::vector<std::uint8_t> &bytes)
{
    remove_block(path_of(index).c_str()); // where root made it immutable
    std::ofstream file(path_of(index), std::ios::binary);
    file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(file.flush());
}

void cache_of_test::damage_block(unsigned index, std::size_t place, unsigned bits)
{
    std::vector<std::uint8_t> block = read_block(index);
    block.at(place) ^= static_cast<std::uint8_t>(bits);
    write_block(index, block);
}

void cache_of_test::write_block_with_hash(unsigned index, std::vector<std::uint8_t> bytes)
{
    std::ranges::copy(hash_of(index == 0 ? sha256_digest{} : header_of(index - 1).block_hash, bytes),
                      bytes.begin());
    write_block(index, bytes);
}

cache_of_test::saved_cache cache_of_test::save(unsigned blocks)
{
    saved_cache saved{{}, *ima_cache_ctx.meta};
    for (unsigned i = 0; i < blocks; ++i)
        saved.blocks.push_back(read_block(i));
    return saved;
}

void cache_of_test::put_back(const saved_cache &saved)
{
    *ima_cache_ctx.meta = saved.meta;
    for (unsigned i = 0; i < IMA_CACHE_MAX_BLOCKS; ++i) {
        if (i < saved.blocks.size())
            write_block(i, saved.blocks[i]);
        else
            remove_block(path_of(i).c_str());
    }
    messages_raised.clear();
    trace_captured.clear();
}
