// Which metadata and which semaphores a start takes, and the first start of a boot.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ima_cache/semaphore_lock.h"
#include "platform/owners.h"
#include "tests/ima_cache/cache_of_test.h"
#include "tests/support/trace_capture.h"

namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;

class CacheStart : public cache_of_test {
protected:
    void SetUp() override
    {
        append(2);
        messages_raised.clear();
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
};

TEST_F(CacheStart, StartsAnewOnMetadataThatContradictThemselves)
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

TEST_F(CacheStart, StartsAnewOnAnObjectOfAnotherSize)
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
TEST_F(CacheStart, TakesNoObjectOfAnotherUsers)
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

TEST_F(CacheStart, LeavesItsSemaphoresToNoOtherUser)
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

    // What cannot be removed is refused.
    ASSERT_EQ(semctl(ima_cache_ctx.semid, 0, IPC_RMID), 0);
    const int open_to_all = semget(key, SEM_COUNT, IPC_CREAT | 0666);
    const pid_t other = fork();
    ASSERT_GE(other, 0);
    if (other == 0)
        _exit(setresuid(1, 1, 1) == 0 && at_sem_get("test", key) == -1 ? 0 : 1);
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(semctl(open_to_all, 0, IPC_RMID), 0);
}

TEST_F(CacheStart, DeletesTheCacheOfAnEarlierBoot)
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

TEST_F(CacheStart, SaysHowItStarts)
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

TEST_F(CacheStart, LeavesNothingOfAFailedFirstStart)
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
