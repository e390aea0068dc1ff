// Which events are marked, and that restarts and other processes change nothing about it.
#include "ima/deduplication.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/agent_state.h"
#include "tests/ima/parsed_list.h"
#include "tests/ima_cache/table_of_test.h"
#include "tests/support/ima_list.h"
#include "tests/support/trace_capture.h"

namespace {

class Deduplication : public testing::Test {
protected:
    explicit Deduplication(std::uint64_t entries = 3000) : table(entries)
    {
        at_agent_state.at_ima_ht = table.get();
        trace_captured.clear();
    }
    ~Deduplication() override { at_agent_state.at_ima_ht = nullptr; }

    static std::int32_t check(const std::string &name, const std::string &digest, std::uint64_t event)
    {
        return check_and_insert_unique_ima_entry(name.c_str(),
                                                 reinterpret_cast<const std::uint8_t *>(digest.data()),
                                                 static_cast<std::int32_t>(digest.size()), event);
    }
    // The marks of a whole list: '1', '0', or '-' for an event without one.
    static std::string marks(const parsed_list &list)
    {
        std::string marks;
        for (IMA_EVENT event : list.events) {
            mark_duplicate(&event, event.event_num - 1);
            bool marked = (event.present & IMA_EVENT::has_duplicate) != 0;
            marks += marked ? static_cast<char>('0' + event.duplicate) : '-';
        }
        return marks;
    }

    table_of_test table;
};

TEST_F(Deduplication, MarksTheSecondAndNotTheFirst)
{
    EXPECT_EQ(check("/bin/a", "digest", 10), 0);
    EXPECT_EQ(check("/bin/a", "digest", 500), 1);
    EXPECT_TRUE(trace_has("check_and_insert_unique_ima_entry(): Found duplicate entry 10 -> 500 \n"));
    EXPECT_EQ(check("/bin/a", "digest", 10), 0);
    EXPECT_EQ(check("/bin/a", "other digest", 501), 0);
    EXPECT_EQ(check_and_insert_unique_ima_entry(nullptr, nullptr, 0, 1), -1);
    EXPECT_EQ(check_and_insert_unique_ima_entry("/bin/a", nullptr, 20, 1), -1);
}

TEST_F(Deduplication, MakesTheKeyOfNameAndDigest)
{
    std::string name(300, 'n');
    std::string digest(32, 'd');
    EXPECT_EQ(check(name, digest, 1), 0);
    EXPECT_EQ(table.search(std::string(256, 'n') + digest), 1);
    EXPECT_EQ(check(std::string(256, 'n') + "another end", digest, 2), 1);
    // The whole key is cut to 511 bytes.
    EXPECT_EQ(check(name, std::string(254, 'd'), 3), 0);
    EXPECT_EQ(table.search(std::string(256, 'n') + std::string(254, 'd')), 3);
    EXPECT_EQ(check(name, std::string(255, 'd'), 4), 0);
    EXPECT_EQ(check(name, std::string(400, 'd'), 5), 1);
    EXPECT_EQ(table.search(std::string(256, 'n') + std::string(255, 'd')), 4);
    EXPECT_EQ(check("", "", 6), 0);
    EXPECT_EQ(table.search(""), 6);
}

TEST_F(Deduplication, LeavesEventsWithoutNameOrDigestUnmarked)
{
    std::string digest = ima_digest_field("sha256", std::string(32, 'd'));
    parsed_list list(ima_record(10, "d-ng", digest) + ima_record(10, "n-ng", ima_name_field("x")) +
                     ima_record(10, "d-ng|n-ng", digest + ima_name_field("x")) +
                     ima_record(10, "ima-ng", digest + ima_name_field("x")) + ima_record(10, "?", "data"));
    EXPECT_EQ(marks(list), "--01-");
    EXPECT_TRUE(trace_has("at_read_local_ima_chunk_from_file(): Found a duplicate entry for x at 3"));
    at_agent_state.at_ima_ht = nullptr;
    EXPECT_EQ(marks(list), "-----");
    EXPECT_EQ(check("x", "y", 1), -1);
}

TEST_F(Deduplication, SeesTheSameListBesideAnotherProcess)
{
    parsed_list list(ima_list(2000, IMA_KIND_ALL));
    std::string alone;
    {
        table_of_test own(3000);
        at_agent_state.at_ima_ht = own.get();
        alone = marks(list);
    }
    EXPECT_EQ(alone[0], '0');
    EXPECT_NE(alone.find('1'), std::string::npos);
    in_children(2, [&](int) {
        auto handle = table.open_again();
        at_agent_state.at_ima_ht = handle.get();
        return handle && marks(list) == alone;
    });
}

class FullTable : public Deduplication {
protected:
    FullTable() : Deduplication(0) {}
};

TEST_F(FullTable, KeepsMarkingWhatItHas)
{
    std::string bytes;
    for (int i = 0; i < 60; ++i)
        bytes += ima_old_record(10, std::string(20, 'd'), "/bin/" + std::to_string(i));
    bytes += ima_old_record(10, std::string(20, 'd'), "/bin/7");
    EXPECT_EQ(marks(parsed_list(bytes)), std::string(60, '0') + "1");
    EXPECT_TRUE(
        trace_has("check_and_insert_unique_ima_entry(): Failed to add entry into ht for event 54 \n"));
    EXPECT_EQ(std::count_if(trace_captured.begin(), trace_captured.end(),
                            [](const std::string &line) { return line.find("Failed to add") != line.npos; }),
              7);
}

TEST(DeduplicationTable, LiesWhereItsNameSays)
{
    in_own_shm(16 << 20, [] {
        trace_captured.clear();
        EXPECT_TRUE(create_ima_ht());
        ASSERT_NE(at_agent_state.at_ima_ht, nullptr);
        EXPECT_EQ(at_agent_state.at_ima_ht->bucket_count, 3079); // a quarter of 16 MiB
        EXPECT_EQ(access("/dev/shm/ima_unique_measurements", R_OK), 0);
        delete at_agent_state.at_ima_ht;
        at_agent_state.at_ima_ht = nullptr;
    });
    in_own_shm(100'000, [] {
        EXPECT_FALSE(create_ima_ht());
        EXPECT_EQ(at_agent_state.at_ima_ht, nullptr);
        EXPECT_TRUE(trace_has("create_ima_ht(): Failed to create hash table"));
    });
}

} // namespace
