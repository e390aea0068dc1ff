// What is appended, how it lies on the disk, and what is read back.
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <linux/fs.h>
#include <openssl/evp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ima_cache/cache_block.h"
#include "ima_cache/read.h"
#include "platform/owners.h"
#include "tests/ima_cache/cache_of_test.h"
#include "tests/support/trace_capture.h"

namespace {

using Append = cache_of_test;
using Read = cache_of_test;

sha256_digest hash_of(const sha256_digest &previous, const std::vector<std::uint8_t> &block,
                      std::size_t used_len)
{
    std::vector<std::uint8_t> hashed(previous.begin(), previous.end());
    hashed.insert(hashed.end(), block.begin() + 32, block.begin() + static_cast<std::ptrdiff_t>(used_len));
    sha256_digest digest{};
    EVP_Digest(hashed.data(), hashed.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
    return digest;
}

TEST_F(Append, WritesTheBlockThatTheFormatSays)
{
    at_ima_cache_limits = {};
    append(1);
    std::vector<std::uint8_t> block = read_block(0);
    ASSERT_EQ(block.size(), 65'100'488);
    cache_block_hdr header = header_of(0);
    std::uint32_t length = 0;
    std::memcpy(&length, &block[88], sizeof length);
    EXPECT_EQ(header.version, 0x00010000);
    EXPECT_EQ(header.used_len, 88 + 4 + length);
    EXPECT_EQ(header.first_event, 1);
    EXPECT_EQ(header.event_count, 1000);
    EXPECT_EQ(header.start_offset, 0);
    EXPECT_EQ(header.end_offset, offset_behind(1000));
    EXPECT_NEAR(static_cast<double>(header.create_time), static_cast<double>(time(nullptr)), 60);
    EXPECT_EQ(header.end_time, 0);
    EXPECT_EQ(header.block_hash, hash_of({}, block, header.used_len));
    std::vector<std::uint8_t> zeros(block.size() - header.used_len);
    EXPECT_EQ(std::memcmp(&block[header.used_len], zeros.data(), zeros.size()), 0);
    struct stat file {};
    ASSERT_EQ(stat(path_of(0).c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600);
}

TEST_F(Append, CutsASealedBlockAndChainsTheNextToIt)
{
    append(CHUNKS + 1);
    std::vector<std::uint8_t> sealed = read_block(0);
    cache_block_hdr header = header_of(0);
    EXPECT_EQ(sealed.size(), header.used_len);
    EXPECT_NE(header.end_time, 0);
    EXPECT_EQ(header.event_count, CHUNKS * 1000);
    EXPECT_EQ(header.block_hash, hash_of({}, sealed, header.used_len));
    EXPECT_EQ(ima_cache_ctx.meta->cur_block, 1);
    cache_block_hdr next = header_of(1);
    EXPECT_EQ(next.first_event, CHUNKS * 1000 + 1);
    EXPECT_EQ(next.start_offset, offset_behind(CHUNKS * 1000));
    EXPECT_EQ(next.block_hash, hash_of(header.block_hash, read_block(1), next.used_len));
    EXPECT_EQ(ima_cache_ctx.meta->blocks[0].event_count, CHUNKS * 1000);
    EXPECT_EQ(ima_cache_ctx.meta->blocks[1].event_count, 1000);
}

TEST_F(Append, MakesASealedBlockImmutable)
{
    append(CHUNKS);
    unique_fd file(open(path_of(0).c_str(), O_RDONLY));
    int flags = 0;
    if (ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0 ||
        trace_has("block_end(): Cannot set the flags to make the block immutable"))
        GTEST_SKIP() << "files cannot be made immutable here";
    EXPECT_NE(flags & FS_IMMUTABLE_FL, 0);
    EXPECT_LT(open(path_of(0).c_str(), O_RDWR), 0);
    remove_block(path_of(0).c_str());
    EXPECT_FALSE(std::filesystem::exists(path_of(0)));
}

TEST_F(Append, TakesOnlyTheChunkThatComesNext)
{
    EXPECT_EQ(source_chunk(2).add(), -1);
    EXPECT_TRUE(trace_has("at_ima_cache_add(): Attempt to add discontiguos chunk 0 -> 2 "));
    EXPECT_FALSE(std::filesystem::exists(path_of(0)));
    append(3);
    for (auto [first, result] : std::initializer_list<std::pair<std::uint64_t, std::int32_t>>{
             {3000, -1}, {4001, -1}, {2001, 0}, {1, 0}, {2999, 0}})
        EXPECT_EQ(source_chunk(first).add(), result) << first;
    EXPECT_TRUE(trace_has("at_ima_cache_add(): Chunk already in the cache 2001 "));
    expect_events(3000);
    append(1);
    expect_events(4000);
}

TEST_F(Append, RefusesWhatIsNoChunk)
{
    source_chunk chunk(1);
    EXPECT_EQ(at_ima_cache_add(nullptr, 1000, 0, 1), -1);
    EXPECT_EQ(trace_captured.back(), "at_ima_cache_add(): Invalid arg");
    for (std::uint64_t count : {0, 999, 1001}) {
        EXPECT_EQ(at_ima_cache_add(chunk.events.data(), count, 0, 1), -1);
        EXPECT_EQ(trace_captured.back(),
                  "at_ima_cache_add(): Event count should be MAX IMA Events for cache chunks ");
    }
    chunk.events[500].event_num = 7;
    EXPECT_EQ(chunk.add(), -1);
    expect_events(0);
}

TEST_F(Append, KeepsALongChunkWhole)
{
    source_chunk chunk(1, 4000);
    ASSERT_EQ(chunk.add(), 1); // the block outgrows what is reserved, too
    EXPECT_GT(header_of(0).used_len, 4'000'000);
    ima_cache_cursor at{};
    owned_message<IMACacheBlock> message;
    ASSERT_EQ(at_ima_cache_read_start(1000, message.get(), &at.block, &at.offset, &at.fd), 1);
    EXPECT_EQ(message->events.items[999].event_name, chunk.names[999]);
    at_ima_cache_read_done(&at.block, &at.offset, &at.fd);
}

TEST_F(Append, EndsWithTheLastBlock)
{
    at_ima_cache_limits.block_events = 1000;
    append(200);
    EXPECT_EQ(ima_cache_ctx.meta->cur_block, 199);
    EXPECT_EQ(source_chunk(200'001).add(), -1);
    expect_events(200'000);
    EXPECT_EQ(restart(), 1);
    expect_events(200'000);
    EXPECT_EQ(messages_raised, std::vector<std::string>{});
}

TEST_F(Append, LeavesNoFileOnAFullDisk)
{
    at_ima_cache_limits.block_size = IMA_CACHE_BLOCK_SIZE;
    std::string filler = "/harddisk:/filler";
    unique_fd file(open(filler.c_str(), O_RDWR | O_CREAT, 0600));
    ASSERT_EQ(posix_fallocate(file.get(), 0, 110 << 20), 0);
    EXPECT_EQ(source_chunk(1).add(), -1);
    EXPECT_EQ(messages_raised, std::vector{"IMA_DISK_CACHE_FULL: " + path_of(0)});
    EXPECT_TRUE(std::filesystem::is_empty(ima_cache_ctx.meta->cache_dir));
    std::filesystem::remove(filler);
    file.reset();
    append(1);
    expect_events(1000);
}

// No file gets larger than this while it lives: a write that would is cut short, as by a full disk.
class file_limit {
public:
    explicit file_limit(rlim_t size)
    {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &old_);
        rlimit low{size, old_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &low);
    }
    ~file_limit() { setrlimit(RLIMIT_FSIZE, &old_); }
    file_limit(const file_limit &) = delete;
    file_limit &operator=(const file_limit &) = delete;

private:
    rlimit old_{};
};

TEST_F(Append, GoesOnAfterAShortWrite)
{
    append(1);
    std::vector<std::uint8_t> before = read_block(0);
    std::uint32_t used_len = header_of(0).used_len;
    for (rlim_t size : {0u, used_len, used_len + 1, used_len + 20'000}) {
        file_limit limit(size);
        EXPECT_EQ(source_chunk(1001).add(), -1) << size;
        EXPECT_EQ(read_block(0), before) << size;
    }
    append(CHUNKS - 1);
    { // the first chunk of a block, larger than what is reserved
        file_limit limit(at_ima_cache_limits.block_size + 10'000);
        EXPECT_EQ(source_chunk(CHUNKS * 1000 + 1, 200).add(), -1);
    }
    append(1);
    expect_events(CHUNKS * 1000 + 1000);
    EXPECT_EQ(messages_raised, std::vector<std::string>{});
}

TEST_F(Append, DoesNothingWithoutTheLock)
{
    append(1);
    semctl(ima_cache_ctx.semid, 0, IPC_RMID);
    std::uint64_t out = 0;
    ima_cache_cursor at{};
    owned_message<IMACacheBlock> message;
    EXPECT_EQ(source_chunk(1001).add(), -1);
    EXPECT_EQ(at_ima_cache_get_last_offset(&out, &out), -1);
    EXPECT_EQ(at_ima_cache_find_file_offset(1, &out, &out), -1);
    EXPECT_EQ(validate_all_blocks(), -1);
    EXPECT_EQ(open_cache_block(0, 0, O_RDONLY, 0), -1);
    EXPECT_EQ(at_ima_cache_read_start(1, message.get(), &at.block, &at.offset, &at.fd), -1);
    EXPECT_LE(at.fd, 0);
    EXPECT_EQ(restart(), 1); // which makes the lock again
    expect_events(1000);
}

// ---- reading ----

TEST_F(Read, StartsOnTheChunkOfTheEvent)
{
    append(CHUNKS + 2);
    for (auto [event, first, block] :
         std::initializer_list<std::tuple<std::uint64_t, std::uint64_t, int>>{{0, 1, 0},
                                                                              {1, 1, 0},
                                                                              {1000, 1, 0},
                                                                              {1001, 1001, 0},
                                                                              {1500, 1001, 0},
                                                                              {3000, 2001, 0},
                                                                              {3001, 3001, 1},
                                                                              {5000, 4001, 1}}) {
        ima_cache_cursor at{7, 7, 7};
        owned_message<IMACacheBlock> message;
        ASSERT_EQ(at_ima_cache_read_start(event, message.get(), &at.block, &at.offset, &at.fd), 1) << event;
        EXPECT_EQ(message->events.items[0].event_num, first);
        EXPECT_EQ(at.block, block);
        at_ima_cache_read_done(&at.block, &at.offset, &at.fd);
        EXPECT_EQ(at.fd, -1);
    }
    ima_cache_cursor at{};
    owned_message<IMACacheBlock> message;
    EXPECT_EQ(at_ima_cache_read_start(5001, message.get(), &at.block, &at.offset, &at.fd), -1);
    EXPECT_TRUE(
        trace_has("at_ima_cache_find_block(): 5001 attempt to read beyond current cache content 5000"));
}

TEST_F(Read, KeepsItsPlaceAtABlocksEnd)
{
    append(CHUNKS);
    ima_cache_cursor at{};
    owned_message<IMACacheBlock> message;
    auto next = [&] {
        message_release(*message);
        return at_ima_cache_read_next(message.get(), &at.block, &at.offset, &at.fd);
    };
    ASSERT_EQ(at_ima_cache_read_start(2001, message.get(), &at.block, &at.offset, &at.fd), 1);
    append(1); // while it is being read
    ASSERT_EQ(next(), 1);
    EXPECT_EQ(at.block, 1);
    EXPECT_EQ(at.offset, 88);
    EXPECT_EQ(message->events.items[999].event_num, 4000);
    append(1);
    ASSERT_EQ(next(), 1);
    EXPECT_EQ(message->events.items[0].event_num, 4001);
    ASSERT_EQ(next(), 0);
    EXPECT_EQ(at.block, 2);
    EXPECT_EQ(at.offset, 0);
    EXPECT_EQ(at.fd, -1);
    EXPECT_EQ(next(), -1);
    at_ima_cache_read_done(&at.block, &at.offset, &at.fd);
}

TEST_F(Read, RefusesMissingArguments)
{
    std::uint8_t block = 0;
    std::uint32_t offset = 0;
    IMACacheBlock message{};
    EXPECT_EQ(at_ima_cache_read_start(1, &message, &block, &offset, nullptr), -1);
    EXPECT_EQ(trace_captured.back(), "at_ima_cache_read_start(): Invalid args");
    EXPECT_EQ(at_ima_cache_read_next(nullptr, &block, &offset, nullptr), -1);
    EXPECT_EQ(trace_captured.back(), "at_ima_cache_read_next(): Invalid args");
    at_ima_cache_read_done(nullptr, &offset, nullptr);
    EXPECT_EQ(trace_captured.back(), "at_ima_cache_read_done(): Invalid args");
    EXPECT_EQ(read_events(88, -1, &message), -1);
    EXPECT_EQ(trace_captured.back(), "read_events(): Invalid args");
    EXPECT_EQ(at_ima_cache_get_last_offset(nullptr, nullptr), -1);
    EXPECT_EQ(at_ima_cache_find_file_offset(1, nullptr, nullptr), -1);
}

TEST_F(Read, FindsTheOffsetInTheKernelsList)
{
    append(CHUNKS); // the current block has no chunk yet
    for (auto [event, first] : std::initializer_list<std::pair<std::uint64_t, std::uint64_t>>{
             {0, 77}, {1, 1}, {2999, 1}, {3000, 3000}, {9000, 3000}}) {
        std::uint64_t event_out = 77;
        std::uint64_t offset_out = 77;
        ASSERT_EQ(at_ima_cache_find_file_offset(event, &event_out, &offset_out), 1);
        EXPECT_EQ(event_out, first) << event;
        EXPECT_EQ(offset_out, first == 77 ? 77 : first == 1 ? 0 : offset_behind(3000)) << event;
    }
    append(1);
    std::uint64_t event_out = 0;
    std::uint64_t offset_out = 0;
    ASSERT_EQ(at_ima_cache_find_file_offset(3500, &event_out, &offset_out), 1);
    EXPECT_EQ(event_out, 3001);
    EXPECT_EQ(offset_out, offset_behind(3000));
}

// Blocks with a right hash around wrong contents, as only a faulty or foreign writer makes them.
TEST_F(Read, DoesNotBelieveLengthsAndNumbers)
{
    append(2);
    saved_cache saved = save(1);
    std::uint32_t second = 0;
    std::memcpy(&second, &saved.blocks[0][88], sizeof second);
    second += 92;
    auto put = [](std::vector<std::uint8_t> &block, std::size_t at, std::uint32_t value) {
        std::memcpy(&block[at], &value, sizeof value);
    };
    auto length_of_second = [&](const std::vector<std::uint8_t> &block) {
        std::uint32_t length = 0;
        std::memcpy(&length, &block[second], sizeof length);
        return length;
    };
    struct {
        const char *what;
        std::function<void(std::vector<std::uint8_t> &)> change;
    } changes[] = {
        {"first event", [&](auto &block) { put(block, 40, 2); }},
        {"a length behind the block", [&](auto &block) { put(block, second, 0xFFFFFFFF); }},
        {"a length to the next byte", [&](auto &block) { put(block, second, second); }},
        {"a length that is too short", [&](auto &block) { put(block, second, 1000); }},
        {"no length", [&](auto &block) { put(block, second, 0); }},
        {"a byte more than there are", [&](auto &block) { put(block, second, length_of_second(block) + 1); }},
        {"an end within an event", [&](auto &block) { put(block, second, length_of_second(block) - 1); }},
        {"no message", [&](auto &block) { block[second + 4] = 0xff; }},
        {"events without a field, far more than a chunk has",
         [&](auto &block) {
             for (std::size_t i = 0; i < length_of_second(block); ++i)
                 block[second + 4 + i] = i % 2 == 0 ? 0x0a : 0;
         }},
        {"one event of the thousand",
         [&](auto &block) { put(block, second, 3 + (block[second + 5] & 0x7f) + (block[second + 6] << 7)); }},
        {"a block that ends within the length",
         [&](auto &block) { put(block, offsetof(cache_block_hdr, used_len), second + 2); }},
        {"no length of the first", [&](auto &block) { put(block, 88, 0); }},
        {"a length of the first behind the block", [&](auto &block) { put(block, 88, 0xFFFFFFFF); }},
        {"the first chunk again",
         [&](auto &block) {
             std::copy(block.begin() + 92, block.begin() + second, block.begin() + second + 4);
             put(block, second, second - 92);
         }},
    };
    for (auto &[what, change] : changes) {
        put_back(saved);
        std::vector<std::uint8_t> block = saved.blocks[0];
        change(block);
        write_block_with_hash(0, block);
        ima_cache_cursor at{};
        owned_message<IMACacheBlock> message;
        std::int32_t result = at_ima_cache_read_start(1, message.get(), &at.block, &at.offset, &at.fd);
        if (result == 1) {
            EXPECT_EQ(message->events.items[999].event_num, 1000) << what;
            message_release(*message);
            result = at_ima_cache_read_next(message.get(), &at.block, &at.offset, &at.fd);
        }
        EXPECT_LE(result, 0) << what;
        EXPECT_EQ(message->events.count, 0) << what;
        at_ima_cache_read_done(&at.block, &at.offset, &at.fd);
        EXPECT_EQ(at_ima_cache_read_start(1001, message.get(), &at.block, &at.offset, &at.fd), -1) << what;
        EXPECT_EQ(message->events.count, 0) << what;
        at_ima_cache_read_done(&at.block, &at.offset, &at.fd);
        EXPECT_EQ(messages_raised, std::vector<std::string>{}) << what;
    }
}

} // namespace
