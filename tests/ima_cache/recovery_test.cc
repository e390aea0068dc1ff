// What becomes of blocks that are missing, damaged, foreign or half made.
#include <array>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ima_cache/cache_block.h"
#include "ima_cache/semaphore_lock.h"
#include "platform/owners.h"
#include "tests/ima_cache/cache_of_test.h"
#include "tests/support/trace_capture.h"

namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;

constexpr std::uint64_t IN_A_BLOCK = 3000;

class Recovery : public cache_of_test {
protected:
    // Three sealed blocks and one with two chunks.
    void SetUp() override
    {
        append(3 * CHUNKS + 2);
        four = save(4);
        messages_raised.clear();
    }
    // After a start that has found block `index` missing or corrupt.
    static void expect_cut_at(unsigned index, const std::string &what)
    {
        EXPECT_EQ(ima_cache_ctx.meta->cur_block, index) << what;
        served_events served = serve_all();
        EXPECT_EQ(served.problem, "") << what;
        EXPECT_EQ(served.count, index * IN_A_BLOCK) << what;
        for (unsigned i = index; i < 5; ++i)
            EXPECT_FALSE(fs::exists(path_of(i))) << what << ", block " << i;
    }
    saved_cache four;
};

TEST_F(Recovery, LeavesASoundCacheAsItIs)
{
    ima_cache_meta before = *ima_cache_ctx.meta;
    auto chain = ima_cache_ctx.block_hash_chain;
    ASSERT_EQ(restart(), 1);
    EXPECT_EQ(std::memcmp(&before, ima_cache_ctx.meta, sizeof before), 0);
    EXPECT_EQ(chain, ima_cache_ctx.block_hash_chain);
    EXPECT_EQ(messages_raised, strings{});
    unique_fd object(open(IMA_CACHE_META_PATH, O_RDWR | O_CLOEXEC));
    EXPECT_EQ(flock(object.get(), LOCK_EX | LOCK_NB), 0) << "nobody is kept out behind the start";
    expect_events(11'000);
    append(2);
    expect_events(13'000);
}

TEST_F(Recovery, CutsAtTheFirstMissingBlock)
{
    for (unsigned missing = 1; missing < 16; ++missing) {
        put_back(four);
        unsigned first = 4;
        for (unsigned i = 4; i-- > 0;) {
            if ((missing >> i & 1) == 0)
                continue;
            remove_block(path_of(i).c_str());
            first = i;
        }
        ASSERT_EQ(restart(), 1);
        expect_cut_at(first, "missing " + std::to_string(missing));
        // The current block may well not have been started.
        EXPECT_EQ(messages_raised,
                  first == 3 ? strings{} : strings{"IMA_DISK_LOST_BLOCK: " + path_of(first)});
        EXPECT_TRUE(
            trace_has("validate_all_blocks(): Block is missing, resetting current write block to this " +
                      std::to_string(first)));
        append(1);
        expect_events(first * IN_A_BLOCK + 1000);
    }
}

TEST_F(Recovery, CutsAtADamagedBlock)
{
    for (unsigned index = 0; index < 4; ++index) {
        put_back(four);
        std::uint32_t used_len = header_of(index).used_len;
        std::vector<std::size_t> places;
        for (std::size_t at = 0; at < CACHE_BLOCK_HDR_LEN; ++at)
            places.push_back(at);
        for (std::size_t at = CACHE_BLOCK_HDR_LEN; at < used_len; at += 4999)
            places.push_back(at);
        places.push_back(used_len - 1);
        for (std::size_t at : places) {
            put_back(four);
            damage_block(index, at, 1 << at % 8);
            ASSERT_EQ(restart(), 1);
            std::string what = "byte " + std::to_string(at) + " of block " + std::to_string(index);
            expect_cut_at(index, what);
            EXPECT_EQ(messages_raised, strings{"IMA_DISK_CORRUPT_BLOCK: " + path_of(index)}) << what;
        }
    }
    put_back(four); // what no hash covers does not matter
    damage_block(3, four.blocks[3].size() - 1);
    ASSERT_EQ(restart(), 1);
    expect_events(11'000);
}

TEST_F(Recovery, CutsAtAForeignBlock)
{
    const std::uint32_t whole = header_of(1).used_len;
    const struct {
        const char *what;
        std::uint32_t version, used_len;
        bool with_hash;
    } foreign[] = {
        {"another version", 0x00010001, whole, true},
        {"no chunk, as it was made", IMA_CACHE_BLOCK_VERSION, CACHE_BLOCK_HDR_LEN, false},
        {"used_len within the header", IMA_CACHE_BLOCK_VERSION, 40, true},
        {"used_len behind the file's end", IMA_CACHE_BLOCK_VERSION, whole + 1, true},
    };
    for (const auto &[what, version, used_len, with_hash] : foreign) {
        put_back(four);
        std::vector<std::uint8_t> block = four.blocks[1];
        std::memcpy(&block[offsetof(cache_block_hdr, version)], &version, sizeof version);
        std::memcpy(&block[offsetof(cache_block_hdr, used_len)], &used_len, sizeof used_len);
        std::fill_n(block.begin(), sizeof(sha256_digest), 0);
        with_hash ? write_block_with_hash(1, block) : write_block(1, block);
        ASSERT_EQ(restart(), 1) << what;
        expect_cut_at(1, what);
        EXPECT_EQ(messages_raised, strings{"IMA_DISK_CORRUPT_BLOCK: " + path_of(1)}) << what;
    }
}

TEST_F(Recovery, KeepsBlocksBehindOneThatCannotBeRead)
{
    std::ofstream(path_of(9)) << "unexpected";
    write_block(1, {1, 2, 3});
    EXPECT_EQ(restart(), -1);
    EXPECT_TRUE(trace_has("validate_all_blocks(): Unable to determine state of the block " + path_of(1)));
    EXPECT_EQ(trace_captured.back(), "at_ima_cache_init(): \n IMA Cache init failed ");
    EXPECT_TRUE(trace_has("validate_all_blocks(): Found unexpected block " + path_of(9) + ", deleting"));
    EXPECT_FALSE(fs::exists(path_of(9)));
    EXPECT_EQ(messages_raised, strings{});
    fs::remove(path_of(1));
    ASSERT_EQ(mkfifo(path_of(1).c_str(), 0600), 0); // nobody will ever write into it
    remove_block(path_of(2).c_str());
    EXPECT_EQ(restart(), -1);
    EXPECT_EQ(messages_raised, strings{}) << "a block that is missing behind it";
    fs::remove(path_of(1));
    write_block(1, four.blocks[1]);
    write_block(2, four.blocks[2]);
    EXPECT_EQ(restart(), 1);
    expect_events(11'000);
}

// A death between the block's update and the metadata's.
TEST_F(Recovery, AppendsNoChunkTwice)
{
    for (unsigned chunks : {1u, 2u}) { // the second one seals the block
        put_back(four);
        ASSERT_EQ(restart(), 1);
        append(chunks - 1);
        ima_cache_meta before = *ima_cache_ctx.meta;
        append(1);
        std::uint8_t cur_block = ima_cache_ctx.meta->cur_block;
        *ima_cache_ctx.meta = before;
        ima_cache_ctx.meta->cur_block = cur_block;
        ASSERT_EQ(restart(), 1);
        std::uint64_t last = 11'000 + chunks * 1000;
        expect_events(last);
        EXPECT_EQ(source_chunk(last - 999).add(), 0);
        append(1);
        expect_events(last + 1000);
    }
}

TEST_F(Recovery, SealsAFullBlockBeforeTheNextChunk)
{
    std::vector<std::uint8_t> bytes = four.blocks[2];
    std::memset(&bytes[offsetof(cache_block_hdr, end_time)], 0, sizeof(std::int64_t));
    remove_block(path_of(3).c_str());
    write_block_with_hash(2, bytes);
    ima_cache_ctx.meta->cur_block = 2;
    ASSERT_EQ(restart(), 1);
    append(1);
    EXPECT_NE(header_of(2).end_time, 0);
    EXPECT_EQ(ima_cache_ctx.meta->cur_block, 3);
    expect_events(10'000);
}

TEST_F(Recovery, BelievesTheBlockWhenTheMetadataSayAnotherEnd)
{
    ima_cache_ctx.meta->last_event -= MAX_IMA_EVENTS;
    EXPECT_EQ(source_chunk(10'001).add(), -1);
    EXPECT_TRUE(
        trace_has("at_ima_cache_add(): block 3 ends with another event than the metadata say: 10000"));
    expect_events(11'000);
    append(1);
    expect_events(12'000);
}

// One that could not be deleted when the cache was cut at it.
TEST_F(Recovery, DoesNotAppendToASealedBlock)
{
    ima_cache_ctx.meta->cur_block = 1;
    ima_cache_ctx.meta->last_event = IN_A_BLOCK;
    ASSERT_EQ(restart(), 1);
    expect_events(11'000);
    append(2);
    expect_events(13'000);
}

// While the cache is used.
TEST_F(Recovery, CutsAtALostOrDamagedBlock)
{
    for (bool damaged : {false, true}) {
        for (unsigned index : {1u, 3u}) {
            put_back(four);
            ASSERT_EQ(restart(), 1);
            if (damaged)
                damage_block(index, 100);
            else
                remove_block(path_of(index).c_str());
            if (index == 3) {
                EXPECT_EQ(source_chunk(11'001).add(), -1);
            }
            EXPECT_EQ(cache_reader().start(index * IN_A_BLOCK + 1), -1);
            EXPECT_EQ(messages_raised.size(), damaged ? 2 : index == 1 ? 1 : 0);
            expect_cut_at(index, "while running");
            append(2);
            expect_events(index * IN_A_BLOCK + 2000);
        }
    }
}

TEST_F(Recovery, CountsNoChunkOfACacheThatAnotherStartHasCut)
{
    append(2); // seals block 3; block 4 has one chunk
    const std::uint64_t end = header_of(3).end_offset;
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe2(ready.data(), O_CLOEXEC), 0);
    const unique_fd locked(ready[0]);
    const unique_fd told(ready[1]);
    const pid_t other = fork();
    ASSERT_GE(other, 0);
    if (other == 0) { // what a start does between the block's hash and the counts
        at_sem_rdlock(ima_cache_ctx.semid);
        if (write(told.get(), "", 1) != 1)
            _exit(1);
        while (semctl(ima_cache_ctx.semid, SEM_WRITER_GATE, GETVAL) == 0)
            usleep(1000);
        unlink(path_of(4).c_str());
        ima_cache_meta &meta = *ima_cache_ctx.meta;
        meta.last_event = 12'000;
        meta.tail_offset = end;
        meta.blocks[4] = {};
        at_sem_rdunlock(ima_cache_ctx.semid);
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(locked.get(), &byte, 1), 1);
    EXPECT_EQ(source_chunk(13'001).add(), -1);
    EXPECT_EQ(waitpid(other, nullptr, 0), other);
    std::uint64_t tail = 0;
    std::uint64_t last = 0;
    ASSERT_EQ(at_ima_cache_get_last_offset(&tail, &last), 1);
    EXPECT_EQ(last, 12'000);
    EXPECT_EQ(tail, end);
}

TEST_F(Recovery, LeavesASealedBlockImmutableAlsoWhereADeathCameBefore)
{
    unique_fd file(open(path_of(0).c_str(), O_RDONLY | O_CLOEXEC));
    int sealed = 0;
    if (ioctl(file.get(), FS_IOC_GETFLAGS, &sealed) != 0 ||
        trace_has("block_end(): Cannot set the flags to make the block immutable"))
        GTEST_SKIP() << "files cannot be made immutable here";
    EXPECT_NE(sealed & FS_IMMUTABLE_FL, 0);
    EXPECT_LT(open(path_of(0).c_str(), O_RDWR), 0);
    int flags = sealed & ~FS_IMMUTABLE_FL;
    ASSERT_EQ(ioctl(file.get(), FS_IOC_SETFLAGS, &flags), 0);
    ASSERT_EQ(restart(), 1);
    ASSERT_EQ(ioctl(file.get(), FS_IOC_GETFLAGS, &flags), 0);
    EXPECT_EQ(flags, sealed);
    remove_block(path_of(0).c_str());
    EXPECT_FALSE(fs::exists(path_of(0)));
}

} // namespace
