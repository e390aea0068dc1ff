// Chunks of any content in blocks whose hash is right: what is no chunk of its place is not served.
#include <cstring>
#include <functional>

#include "tests/ima_cache/cache_of_test.h"

namespace {

using block_bytes = std::vector<std::uint8_t>;

class DamagedChunk : public cache_of_test {
protected:
    // Two chunks in a block that has room for a third.
    void SetUp() override
    {
        append(2);
        good = read_block(0);
        second = CACHE_BLOCK_HDR_LEN + sizeof(cache_chunk_len) + length_at(good, CACHE_BLOCK_HDR_LEN);
    }
    static cache_chunk_len length_at(const block_bytes &bytes, std::size_t at)
    {
        cache_chunk_len length = 0;
        std::memcpy(&length, &bytes[at], sizeof length);
        return length;
    }
    static void set_length(block_bytes &bytes, std::size_t at, cache_chunk_len length)
    {
        std::memcpy(&bytes[at], &length, sizeof length);
    }
    // Whether the chunk that `event` is in is served; and, after the one before it, by going on.
    static std::int32_t read_at(std::uint64_t event, bool go_on = false)
    {
        ima_cache_cursor at{};
        owned_message<IMACacheBlock> message;
        std::int32_t result = at_ima_cache_read_start(go_on ? event - MAX_IMA_EVENTS : event, message.get(),
                                                      &at.block, &at.offset, &at.fd);
        if (go_on && result == 1) {
            message_release(*message);
            result = at_ima_cache_read_next(message.get(), &at.block, &at.offset, &at.fd);
        }
        EXPECT_EQ(message->events.count, result == 1 ? MAX_IMA_EVENTS : 0U);
        at_ima_cache_read_done(&at.block, &at.offset, &at.fd);
        return result;
    }
    block_bytes good;
    std::size_t second = 0; // where the second chunk begins
};

TEST_F(DamagedChunk, IsNotServed)
{
    const std::size_t payload = second + sizeof(cache_chunk_len);
    const struct {
        const char *what;
        std::function<void(block_bytes &)> damage;
    } cases[] = {
        {"no length", [&](block_bytes &bytes) { set_length(bytes, second, 0); }},
        {"a byte more than there are",
         [&](block_bytes &bytes) { set_length(bytes, second, length_at(bytes, second) + 1); }},
        {"the largest length", [&](block_bytes &bytes) { set_length(bytes, second, UINT32_MAX); }},
        {"a length that ends within an event",
         [&](block_bytes &bytes) { set_length(bytes, second, length_at(bytes, second) - 1); }},
        {"no message", [&](block_bytes &bytes) { bytes[payload] = 0xff; }},
        {"an event of another number", // behind the item's tag, its length and the number's tag
         [&](block_bytes &bytes) { bytes[payload + 3] ^= 1; }},
        {"events without a field, far more than a chunk has",
         [&](block_bytes &bytes) {
             for (std::size_t i = payload; i + 1 < payload + length_at(bytes, second); i += 2) {
                 bytes[i] = 0x0a;
                 bytes[i + 1] = 0;
             }
         }},
    };
    ASSERT_EQ(read_at(1001), 1);
    ASSERT_EQ(read_at(1001, true), 1);
    for (const auto &one : cases) {
        block_bytes bytes = good;
        one.damage(bytes);
        write_block_with_hash(0, bytes);
        EXPECT_EQ(read_at(1), 1) << one.what << ": the chunk before it";
        EXPECT_EQ(read_at(1001), -1) << one.what;
        EXPECT_NE(read_at(1001, true), 1) << one.what << ", by going on";
    }
}

TEST_F(DamagedChunk, BehindItNothingIsServed)
{
    for (const cache_chunk_len length : {cache_chunk_len{0}, cache_chunk_len{UINT32_MAX}}) {
        block_bytes bytes = good;
        set_length(bytes, CACHE_BLOCK_HDR_LEN, length);
        write_block_with_hash(0, bytes);
        EXPECT_EQ(read_at(1), -1);
        EXPECT_EQ(read_at(1001), -1) << "the way to it leads over the first";
    }
}

} // namespace
