// What is appended, how it lies on the disk, and what is read back.
#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
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
    EXPECT_EQ(header.block_hash, hash_of({}, block));
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
    EXPECT_EQ(header.block_hash, hash_of({}, sealed));
    EXPECT_EQ(ima_cache_ctx.meta->cur_block, 1);
    cache_block_hdr next = header_of(1);
    EXPECT_EQ(next.first_event, CHUNKS * 1000 + 1);
    EXPECT_EQ(next.start_offset, offset_behind(CHUNKS * 1000));
    EXPECT_EQ(next.block_hash, hash_of(header.block_hash, read_block(1)));
    EXPECT_EQ(ima_cache_ctx.meta->blocks[0].event_count, CHUNKS * 1000);
    EXPECT_EQ(ima_cache_ctx.meta->blocks[1].event_count, 1000);
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
    cache_reader reader;
    ASSERT_EQ(reader.start(1000), 1);
    EXPECT_EQ(reader.message->events.items[999].event_name, chunk.names[999]);
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

// No file gets larger than this: a write that would make it so is cut short, as by a full disk.
void limit_files(rlim_t size)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min(size, limit.rlim_max);
    setrlimit(RLIMIT_FSIZE, &limit);
}

TEST_F(Append, GoesOnAfterAShortWrite)
{
    append(1);
    std::vector<std::uint8_t> before = read_block(0);
    std::uint32_t used_len = header_of(0).used_len;
    for (rlim_t size : {0u, used_len, used_len + 1, used_len + 20'000}) {
        limit_files(size);
        EXPECT_EQ(source_chunk(1001).add(), -1) << size;
        EXPECT_EQ(read_block(0), before) << size;
    }
    limit_files(RLIM_INFINITY);
    append(CHUNKS - 1);
    // The first chunk of a block, larger than what is reserved.
    limit_files(at_ima_cache_limits.block_size + 10'000);
    EXPECT_EQ(source_chunk(CHUNKS * 1000 + 1, 200).add(), -1);
    limit_files(RLIM_INFINITY);
    append(1);
    expect_events(CHUNKS * 1000 + 1000);
    EXPECT_EQ(messages_raised, std::vector<std::string>{});
}

TEST_F(Append, DoesNothingWithoutTheLock)
{
    append(1);
    semctl(ima_cache_ctx.semid, 0, IPC_RMID);
    std::uint64_t out = 0;
    cache_reader reader;
    EXPECT_EQ(source_chunk(1001).add(), -1);
    EXPECT_EQ(at_ima_cache_get_last_offset(&out, &out), -1);
    EXPECT_EQ(at_ima_cache_find_file_offset(1, &out, &out), -1);
    EXPECT_EQ(validate_all_blocks(), -1);
    EXPECT_EQ(open_cache_block(0, 0, O_RDONLY, 0), -1);
    EXPECT_EQ(reader.start(1), -1);
    EXPECT_LE(reader.at.fd, 0);
    EXPECT_EQ(restart(), 1); // which makes the lock again
    expect_events(1000);
}

// ---- reading ----

TEST_F(Read, StartsOnTheChunkOfTheEvent)
{
    append(CHUNKS + 2);
    const struct {
        std::uint64_t event, first;
        int block;
    } starts[] = {{0, 1, 0},       {1, 1, 0},       {1000, 1, 0},    {1001, 1001, 0},
                  {1500, 1001, 0}, {3000, 2001, 0}, {3001, 3001, 1}, {5000, 4001, 1}};
    for (auto [event, first, block] : starts) {
        cache_reader reader;
        reader.at = {7, 7, 7};
        ASSERT_EQ(reader.start(event), 1) << event;
        EXPECT_EQ(reader.message->events.items[0].event_num, first);
        EXPECT_EQ(reader.at.block, block);
        reader.done();
        EXPECT_EQ(reader.at.fd, -1);
    }
    EXPECT_EQ(cache_reader().start(5001), -1);
    EXPECT_TRUE(
        trace_has("at_ima_cache_find_block(): 5001 attempt to read beyond current cache content 5000"));
}

TEST_F(Read, KeepsItsPlaceAtABlocksEnd)
{
    append(CHUNKS);
    cache_reader reader;
    ASSERT_EQ(reader.start(2001), 1);
    append(1); // while it is being read
    ASSERT_EQ(reader.next(), 1);
    EXPECT_EQ(reader.at.block, 1);
    EXPECT_EQ(reader.at.offset, 88);
    EXPECT_EQ(reader.message->events.items[999].event_num, 4000);
    append(1);
    ASSERT_EQ(reader.next(), 1);
    EXPECT_EQ(reader.message->events.items[0].event_num, 4001);
    ASSERT_EQ(reader.next(), 0);
    EXPECT_EQ(reader.at.block, 2);
    EXPECT_EQ(reader.at.offset, 0);
    EXPECT_EQ(reader.at.fd, -1);
    EXPECT_EQ(reader.next(), -1);
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
        SCOPED_TRACE(what);
        put_back(saved);
        std::vector<std::uint8_t> block = saved.blocks[0];
        change(block);
        write_block_with_hash(0, block);
        cache_reader reader;
        std::int32_t result = reader.start(1);
        if (result == 1) {
            EXPECT_EQ(reader.message->events.items[999].event_num, 1000);
            result = reader.next();
        }
        EXPECT_LE(result, 0);
        EXPECT_EQ(reader.message->events.count, 0);
        reader.done();
        EXPECT_EQ(reader.start(1001), -1);
        EXPECT_EQ(reader.message->events.count, 0);
        EXPECT_EQ(messages_raised, std::vector<std::string>{});
    }
}

} // namespace
