#include <cerrno>
#include <fstream>

#include "platform/linux/trace_flag_table.h"
#include "platform/status.h"
#include "tests/platform/run_directory_fixture.h"

namespace {

class trace_flags_test : public run_directory_fixture {
protected:
    void TearDown() override
    {
        for (auto flag = flags.rbegin(); flag != flags.rend(); ++flag) {
            if (*flag != nullptr)
                trace_flag_destroy(&*flag);
        }
        unsetenv("ATTEST_TRACE");
        run_directory_fixture::TearDown();
    }

    // Registers a flag; null when that failed, with the status in `status`.
    trace_flag *add(const std::string &name, trace_flag *parent = nullptr)
    {
        auto *flag = reinterpret_cast<trace_flag *>(this);
        status = trace_flag_init(&flag, name.c_str(), parent, 0, 0);
        flags.push_back(flag);
        EXPECT_EQ(flag == nullptr, status != 0);
        return flag;
    }

    std::vector<trace_flag *> flags;
    std::uint32_t status = 0;
};

TEST_F(trace_flags_test, StartAsTheSettingSays)
{
    const struct {
        const char *setting;
        bool root, api, agent;
    } cases[] = {
        {nullptr, true, true, true},
        {"", true, true, true},
        {"all", true, true, true},
        {"none", false, false, false},
        {"root", true, false, false},
        {"agent", true, false, true},
        {" api , agent,", true, true, true},
        {"agen", false, false, false},
        {"agent2,apis", false, false, false},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.setting == nullptr ? "not set" : row.setting);
        unsetenv("ATTEST_TRACE");
        if (row.setting != nullptr)
            setenv("ATTEST_TRACE", row.setting, 1);
        trace_flag *root = add("root");
        trace_flag *api = add("api", root);
        trace_flag *agent = add("agent", root);
        EXPECT_EQ(trace_flag_enabled(root), row.root);
        EXPECT_EQ(trace_flag_enabled(api), row.api);
        EXPECT_EQ(trace_flag_enabled(agent), row.agent);
        for (trace_flag *flag : {agent, api, root})
            EXPECT_EQ(trace_flag_destroy(&flag), 0u);
        flags.clear();
    }
}

TEST_F(trace_flags_test, FlagThatCannotBeRegisteredIsAStatus)
{
    for (const char *name : {"", "sixteen-letters-", "a,b", "a b", "a\033"}) {
        add(name);
        EXPECT_EQ(status, platform_status_from_errno(EINVAL)) << name;
    }
    add("fifteen-letters");
    EXPECT_EQ(status, 0u);
    add("fifteen-letters");
    EXPECT_EQ(status, platform_status_from_errno(EEXIST));
    trace_flag stray{};
    add("child", &stray);
    EXPECT_EQ(status, platform_status_from_errno(EINVAL));
    for (std::size_t i = 1; i < TRACE_FLAGS_MAX; ++i) {
        add("flag" + std::to_string(i));
        ASSERT_EQ(status, 0u);
    }
    add("one-too-many");
    EXPECT_EQ(status, platform_status_from_errno(ENOSPC));
}

TEST_F(trace_flags_test, DestroyedParentHandsItsChildrenOn)
{
    trace_flag *root = add("root");
    trace_flag *middle = add("middle", root);
    trace_flag *leaf = add("leaf", middle);
    EXPECT_EQ(trace_flag_destroy(&flags[1]), 0u);
    EXPECT_EQ(flags[1], nullptr);
    EXPECT_EQ(trace_flag_destroy(&flags[1]), platform_status_from_errno(EINVAL));
    EXPECT_EQ(trace_flag_destroy(nullptr), platform_status_from_errno(EINVAL));
    add("in-its-place");
    EXPECT_TRUE(trace_flag_enabled(leaf));
    std::string bytes(TRACE_FLAGS_FILE_SIZE, '\0');
    std::fstream file(path(TRACE_FLAGS_FILE), std::ios::in | std::ios::out | std::ios::binary);
    ASSERT_TRUE(file.read(bytes.data(), static_cast<std::streamsize>(bytes.size())));
    auto &table = *reinterpret_cast<trace_flag_table *>(bytes.data());
    const trace_flag_slot *parent = trace_flag_parent(table, *trace_flag_find(table, "leaf"));
    ASSERT_NE(parent, nullptr);
    EXPECT_EQ(trace_flag_name(*parent), "root");
}

TEST_F(trace_flags_test, DamagedTableNeitherHangsNorIsRead)
{
    trace_flag_table table{};
    table.slots[0].in_use = table.slots[1].in_use = 1;
    table.slots[0].own = table.slots[1].own = 1;
    table.slots[0].parent = 1;
    table.slots[1].parent = 0;
    table.slots[2].in_use = 1;
    table.slots[2].own = 1;
    table.slots[2].parent = 5000;
    table.slots[2].name.fill('x');
    EXPECT_FALSE(trace_flag_table_valid(table));
    trace_flags_changed(table);
    EXPECT_EQ(trace_flag_parent(table, table.slots[2]), nullptr);
    EXPECT_EQ(trace_flag_name(table.slots[2]).size(), TRACE_FLAG_NAME_SIZE);

    std::ofstream(path(TRACE_FLAGS_FILE)) << std::string(TRACE_FLAGS_FILE_SIZE, 'x');
    add("root");
    EXPECT_EQ(status, 0u);
    EXPECT_TRUE(std::filesystem::exists(path(TRACE_FLAGS_FILE) + ".foreign"));
}

} // namespace
