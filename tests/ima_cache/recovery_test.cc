// What a start makes of what it finds: missing, damaged, foreign and half-made things.
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
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
    // As on a new disk, in a new boot.
    static void lose_all_caches()
    {
        static int lost;
        reboot();
        for (const auto &entry : fs::directory_iterator(IMA_CACHE_ROOT))
            fs::rename(entry, "/harddisk:/lost_" + std::to_string(++lost));
        fs::remove(IMA_CACHE_ROOT);
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

// ---- the metadata ----

TEST_F(Recovery, StartsAnewOnMetadataThatContradictThemselves)
{
    auto directory = [](const std::string &name) {
        return [name](ima_cache_meta &meta) {
            std::memset(meta.cache_dir, 0, CACHE_DIR_SIZE);
            std::memcpy(meta.cache_dir, name.data(), name.size());
        };
    };
    const struct {
        const char *what;
        std::function<void(ima_cache_meta &)> make;
    } contradictions[] = {
        {"size", [](auto &meta) { meta.meta_size = 5336; }},
        {"current block", [](auto &meta) { meta.cur_block = 200; }},
        {"half made", directory("")},
        {"another directory", directory("/tmp/ima_cache_0")},
        {"the root itself", directory("/harddisk:/ima/")},
        {"above the root", directory("/harddisk:/ima/..")},
        {"below a directory", directory("/harddisk:/ima/../x")},
        {"no end", [](auto &meta) { std::memset(meta.cache_dir + 15, 'x', CACHE_DIR_SIZE - 15); }},
        {"zeros", [](auto &meta) { std::memset(&meta, 0, sizeof meta); }},
    };
    for (auto &[what, make] : contradictions) {
        make(*ima_cache_ctx.meta);
        trace_captured.clear();
        ASSERT_EQ(restart(), 1) << what;
        EXPECT_TRUE(trace_has_part("the cache starts anew")) << what;
        EXPECT_EQ(ima_cache_ctx.meta->meta_size, 5337);
        expect_events(0);
        EXPECT_EQ(std::distance(fs::directory_iterator(IMA_CACHE_ROOT), {}), 1) << what;
        append(1);
        expect_events(1000);
    }
}

TEST_F(Recovery, StartsAnewOnAnObjectOfAnotherSize)
{
    for (off_t size : {0, 8, 5336, 5338, 20'000}) {
        ASSERT_EQ(truncate(IMA_CACHE_META_PATH, size), 0);
        ASSERT_EQ(restart(), 1) << size;
        EXPECT_EQ(fs::file_size(IMA_CACHE_META_PATH), 5337);
        append(1);
        expect_events(1000);
    }
}

// Any user may lay something into /dev/shm before the agent does.
TEST_F(Recovery, TakesNoObjectOfAnotherUsers)
{
    if (chown(IMA_CACHE_META_PATH, 1, static_cast<gid_t>(-1)) != 0)
        GTEST_SKIP() << "no other users here";
    ASSERT_EQ(restart(), 1);
    struct stat object {};
    ASSERT_EQ(stat(IMA_CACHE_META_PATH, &object), 0);
    EXPECT_EQ(object.st_uid, geteuid());
    expect_events(0);
    ASSERT_EQ(chown(IMA_CACHE_META_PATH, 1, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(chmod(IMA_CACHE_META_PATH, 0), 0);
    ASSERT_EQ(restart(), 1);
    append(1);
    expect_events(1000);
    fs::remove(IMA_CACHE_META_PATH);
    fs::create_symlink("/tmp/elsewhere", IMA_CACHE_META_PATH);
    ASSERT_EQ(restart(), 1);
    append(1);
    expect_events(1000);
    EXPECT_FALSE(fs::exists("/tmp/elsewhere"));
    fs::remove(IMA_CACHE_META_PATH);
    fs::create_directories(fs::path(IMA_CACHE_META_PATH) / "not_empty");
    ASSERT_EQ(restart(), 1);
    append(1);
    expect_events(1000);
}

TEST_F(Recovery, LeavesItsSemaphoresToNoOtherUser)
{
    const auto state = [] {
        semid_ds about{};
        EXPECT_EQ(semctl(ima_cache_ctx.semid, 0, IPC_STAT, &about), 0);
        return about;
    };
    EXPECT_EQ(state().sem_perm.mode & 077, 0);
    const std::uint64_t events = ima_cache_ctx.meta->last_event;
    const key_t key = ftok(IMA_CACHE_META_PATH, SEM_PROJECT);
    for (int length : {SEM_COUNT, 1}) {
        ASSERT_EQ(semctl(ima_cache_ctx.semid, 0, IPC_RMID), 0);
        const int foreign = semget(key, length, IPC_CREAT | 0666);
        semid_ds about{};
        ASSERT_EQ(semctl(foreign, 0, IPC_STAT, &about), 0);
        about.sem_perm.uid = 1;
        if (semctl(foreign, 0, IPC_SET, &about) != 0)
            GTEST_SKIP() << "no other users here";
        ASSERT_EQ(restart(), 1) << length;
        EXPECT_EQ(state().sem_perm.uid, geteuid());
        expect_events(events);
    }
    // Given to the agent's user by one who keeps a creator's rights.
    ASSERT_EQ(semctl(ima_cache_ctx.semid, 0, IPC_RMID), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        semid_ds about{};
        int set = -1;
        if (setresuid(1, 1, 1) == 0)
            set = semget(key, SEM_COUNT, IPC_CREAT | 0600);
        semctl(set, 0, IPC_STAT, &about);
        about.sem_perm.uid = 0;
        _exit(semctl(set, 0, IPC_SET, &about) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(restart(), 1);
    EXPECT_EQ(state().sem_perm.cuid, geteuid());
}

// ---- the first start of a boot ----

TEST_F(Recovery, DeletesTheCacheOfAnEarlierBoot)
{
    std::string earlier = ima_cache_ctx.meta->cache_dir;
    fs::create_directories("/harddisk:/ima/ima_cache_x/deeper");
    std::ofstream("/harddisk:/ima/ima_cache_x/deeper/file") << "old";
    fs::create_directory("/harddisk:/ima/kept");
    fs::create_directory_symlink("/harddisk:/ima/kept", "/harddisk:/ima/ima_cache_link");
    ASSERT_EQ(mkfifo("/harddisk:/ima/ima_cache_pipe", 0600), 0);
    std::ofstream("/harddisk:/ima/kept/file") << "other";
    fs::rename(earlier, "/harddisk:/ima/ima_cache_old"); // not the name that this second gives
    reboot();
    ASSERT_EQ(restart(), 1);
    strings left;
    for (const auto &entry : fs::recursive_directory_iterator(IMA_CACHE_ROOT))
        left.push_back(entry.path());
    std::ranges::sort(left);
    EXPECT_EQ(left,
              (strings{ima_cache_ctx.meta->cache_dir, "/harddisk:/ima/kept", "/harddisk:/ima/kept/file"}));
    EXPECT_THAT(ima_cache_ctx.meta->cache_dir,
                testing::MatchesRegex("/harddisk:/ima/ima_cache_[0-9]{8}_[0-9]{6}"));
    expect_events(0);
    fs::remove_all("/harddisk:/ima/kept");
}

TEST_F(Recovery, SaysHowItStarts)
{
    lose_all_caches();
    trace_captured.clear();
    ASSERT_EQ(restart(), 1);
    struct stat root {};
    ASSERT_EQ(stat(IMA_CACHE_ROOT, &root), 0);
    EXPECT_EQ(root.st_mode & 0777, 0700);
    EXPECT_EQ(trace_captured[0], "load_shm_meta_block(): shm_open failed, perhaps it does not exist \n");
    EXPECT_THAT(trace_captured[1],
                testing::MatchesRegex(
                    "load_shm_meta_block\\(\\): Created IMA cache block with id [0-9]+, Size 5337"));
    EXPECT_EQ(trace_captured[2], "load_shm_meta_block(): SEM Key created \n");
    EXPECT_EQ(trace_captured.back(), "load_shm_meta_block(): create_shmht: The id of the semaphore is: " +
                                         std::to_string(ima_cache_ctx.semid) + "\n");
}

TEST_F(Recovery, LeavesNothingOfAFailedFirstStart)
{
    lose_all_caches();
    std::ofstream("/harddisk:/ima") << "in the way";
    EXPECT_EQ(restart(), -1);
    EXPECT_EQ(trace_captured.back(), "at_ima_cache_init(): \n IMA Cache init failed ");
    EXPECT_EQ(ima_cache_ctx.meta, nullptr);
    EXPECT_FALSE(fs::exists(IMA_CACHE_META_PATH));
    std::uint64_t out = 0;
    EXPECT_EQ(at_ima_cache_get_last_offset(&out, &out), -1);
    EXPECT_EQ(source_chunk(1).add(), -1);
    fs::remove("/harddisk:/ima");
    EXPECT_EQ(restart(), 1);
    expect_events(0);
}

} // namespace
