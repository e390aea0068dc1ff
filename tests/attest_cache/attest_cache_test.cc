// attest-cache as an operator runs it, on caches sound and not.
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sys/sem.h>
#include <sys/wait.h>

#include "ima_cache/cache_block.h"
#include "tests/ima_cache/cache_of_test.h"

namespace {

class AttestCache : public cache_of_test {
protected:
    int run(const std::string &arguments)
    {
        FILE *pipe = popen((std::string(ATTEST_CACHE_PROGRAM) + " " + arguments + " 2>&1").c_str(), "r");
        said.clear();
        std::array<char, 4096> buffer{};
        while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr)
            said += buffer.data();
        int status = pclose(pipe);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    static void damage_block_and_hash(unsigned index, std::size_t place, unsigned bits)
    {
        damage_block(index, place, bits);
        write_block_with_hash(index, read_block(index));
    }
    std::string said;
};

TEST_F(AttestCache, ShowsTheCacheThatIsThere)
{
    EXPECT_EQ(run("verify"), 0) << said;
    EXPECT_EQ(said, "sound: 0 blocks, 0 events\n");
    append(CHUNKS + 1);
    EXPECT_EQ(run("verify"), 0) << said;
    EXPECT_EQ(said, "sound: 2 blocks, 4000 events\n");
    ASSERT_EQ(run("list"), 0);
    char sealed[200];
    std::snprintf(sealed, sizeof sealed, "%5d %12d %12d %14d %14lu %12zu ", 0, 1, 3000, 0,
                  static_cast<unsigned long>(offset_behind(3000)), read_block(0).size());
    EXPECT_THAT(said, testing::HasSubstr(sealed));
    EXPECT_THAT(said, testing::ContainsRegex("    1 +3001 +4000 .* 100000 no +ok\n"));
    EXPECT_THAT(said, testing::HasSubstr("2 of 200 blocks, 4000 events of 20000000"));
}

TEST_F(AttestCache, CallsNoDamagedCacheSound)
{
    append(2 * CHUNKS + 1);
    saved_cache sound = save(3);
    const struct {
        const char *fault;
        std::function<void()> make;
    } faults[] = {
        {"block 1: another hash\n", [] { damage_block(1, 300); }},
        {"block 2: block 1 in front of it is missing\n", [] { remove_block(path_of(1).c_str()); }},
        {"block 0: cut off\n",
         [] {
             std::vector<std::uint8_t> block = read_block(0);
             block.pop_back();
             write_block(0, block);
         }},
        {"block 2: no header\n", [] { write_block(2, {1}); }},
        {"block 2: begins with event 6003 behind event 6000\n", [] { damage_block_and_hash(2, 40, 2); }},
        {"block 2: the chunk behind 0 events cannot be read\n", [] { damage_block_and_hash(2, 88, 1); }},
        {"metadata: they end with event 7001 ", [] { ima_cache_ctx.meta->last_event += 1; }},
        {"metadata: they have another block 1\n", [] { ima_cache_ctx.meta->blocks[1].event_count = 1000; }},
        {"metadata: the current block is 7 of 3\n", [] { ima_cache_ctx.meta->cur_block = 7; }},
    };
    for (const auto &[fault, make] : faults) {
        put_back(sound);
        make();
        saved_cache before = save(3);
        EXPECT_EQ(run("verify"), 1) << fault;
        EXPECT_THAT(said, testing::HasSubstr(fault));
        EXPECT_THAT(said, testing::EndsWith("NOT SOUND\n"));
        EXPECT_EQ(run("list"), 0);
        EXPECT_EQ(before.blocks, save(3).blocks) << "changed what it looks at";
        EXPECT_EQ(std::memcmp(&before.meta, ima_cache_ctx.meta, sizeof before.meta), 0);
    }
}

TEST_F(AttestCache, NeedsNoRunningAgent)
{
    append(1);
    std::string directory = ima_cache_ctx.meta->cache_dir;
    reboot();
    EXPECT_EQ(run("verify"), 3);
    EXPECT_THAT(said, testing::HasSubstr("no cache has been started in this boot"));
    EXPECT_FALSE(std::filesystem::exists(IMA_CACHE_META_PATH));
    EXPECT_EQ(run("--dir " + directory + " verify"), 0) << said;
    EXPECT_EQ(run("--dir /nowhere list"), 3);
    EXPECT_EQ(run("--help"), 0);
    for (const char *wrong : {"", "list list", "repair", "--dir", "--nonsense list"})
        EXPECT_EQ(run(wrong), 2) << wrong;
}

TEST_F(AttestCache, DoesNotWaitForALockThatIsGone)
{
    append(1);
    semctl(ima_cache_ctx.semid, 0, IPC_RMID);
    EXPECT_EQ(run("list"), 3);
    EXPECT_THAT(said, testing::HasSubstr("the metadata cannot be locked"));
}

} // namespace
