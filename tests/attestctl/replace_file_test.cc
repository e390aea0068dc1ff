// Files that are replaced: whole, with their permissions, or not at all.
#include <csignal>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "attestctl/replace_file.h"

namespace fs = std::filesystem;

namespace {

struct ReplaceFile : testing::Test {
    fs::path folder = fs::path(testing::TempDir()) / ("replace_file." + std::to_string(getpid()));
    std::string error;

    ReplaceFile() { fs::create_directories(folder); }
    ~ReplaceFile() override { fs::remove_all(folder); }

    static std::string content_of(const fs::path &path)
    {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> found;
        for (const auto &entry : fs::directory_iterator(folder))
            found.push_back(entry.path().filename());
        return found;
    }
};

TEST_F(ReplaceFile, PutsTheContentInPlaceAndKeepsPermissionsAndLink)
{
    const fs::path file = folder / "page", link = folder / "link";
    const mode_t mask = umask(027);
    EXPECT_TRUE(replace_file(file, "first", error)) << error;
    umask(mask);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640));
    fs::permissions(file, fs::perms(0604));
    fs::create_symlink("page", link);
    EXPECT_TRUE(replace_file(link, std::string(100000, 'x'), error)) << error;
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(content_of(file), std::string(100000, 'x'));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0604));
    EXPECT_THAT(names(), testing::UnorderedElementsAre("page", "link"));
}

TEST_F(ReplaceFile, WhatAKilledRunLeftIsNotInTheWay)
{
    const fs::path left = folder / ("page." + std::to_string(getpid()) + ".new");
    std::ofstream(left) << "half";
    EXPECT_TRUE(replace_file(folder / "page", "whole", error)) << error;
    EXPECT_EQ(content_of(folder / "page"), "whole");
    EXPECT_EQ(content_of(left), "half");
}

TEST_F(ReplaceFile, WhatCannotBeWrittenIsSaidBeforeTheWorkAndAfterIt)
{
    const std::array<std::pair<fs::path, const char *>, 4> refused = {{{folder, "Is a directory"},
                                                                       {"/dev/null", "not a regular file"},
                                                                       {folder / "no/page", "No such file"},
                                                                       {"", "No such file"}}};
    for (const auto &[path, why] : refused) {
        EXPECT_FALSE(can_replace_file(path, error)) << path;
        EXPECT_THAT(error, testing::StartsWith("cannot write " + path.string() + ": " + why));
        EXPECT_FALSE(replace_file(path, "new", error)) << path;
    }
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(ReplaceFile, FullDiskLeavesTheOldFileAndNothingElse)
{
    const fs::path file = folder / "page";
    ASSERT_TRUE(replace_file(file, "old", error)) << error;
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small{4096, limit.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_FALSE(replace_file(file, std::string(100000, 'x'), error));
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(error, "cannot write " + file.string() + ": File too large");
    EXPECT_EQ(content_of(file), "old");
    EXPECT_THAT(names(), testing::ElementsAre("page"));
}

} // namespace
