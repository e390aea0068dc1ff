// Who else may write where the cache lies, and what a death may have left open to them.
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/owners.h"
#include "tests/ima_cache/cache_of_test.h"

namespace {

namespace fs = std::filesystem;

class ForeignHands : public cache_of_test {
protected:
    ForeignHands() { append(CHUNKS + 1); }
};

// Any user may lay something into /dev/shm before the agent does.
TEST_F(ForeignHands, TakesNoObjectOfAnotherUsers)
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
}

TEST_F(ForeignHands, MakesASealedBlockImmutableThatADeathHasLeftOpen)
{
    const auto flags_of = [](unsigned index) {
        unique_fd file(open(path_of(index).c_str(), O_RDONLY | O_CLOEXEC));
        int flags = 0;
        return ioctl(file.get(), FS_IOC_GETFLAGS, &flags) == 0 ? flags : 0;
    };
    const int sealed = flags_of(0);
    if ((sealed & FS_IMMUTABLE_FL) == 0)
        GTEST_SKIP() << "files cannot be made immutable here";
    {
        unique_fd file(open(path_of(0).c_str(), O_RDONLY | O_CLOEXEC));
        const int open_flags = sealed & ~FS_IMMUTABLE_FL;
        ASSERT_EQ(ioctl(file.get(), FS_IOC_SETFLAGS, &open_flags), 0);
    }
    ASSERT_EQ(restart(), 1);
    EXPECT_EQ(flags_of(0), sealed);
}

} // namespace
