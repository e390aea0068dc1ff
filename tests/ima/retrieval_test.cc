// Whole retrievals of a list, whole or as a stream, with and without a cache.
#include <algorithm>
#include <functional>

#include <gmock/gmock.h>

#include "agent/status.h"
#include "ima/ima_log.h"
#include "ima/ima_retrieval.h"
#include "ima/retrieval_state.h"
#include "tests/ima/retrieval_of_test.h"
#include "tests/support/trace_capture.h"

namespace {

class retrieval : public retrieval_of_test {};

// About the ends of chunks (1000 events), of blocks (3000), of what is cached (7000) and of the list.
constexpr std::uint64_t STARTS[] = {0, 1, 999, 1000, 1001, 3000, 3001, 6500, 7000, 7001, 7500, 9000};
constexpr std::uint64_t COUNTS[] = {ALL, 1, 1001, 2500, 20000};

// As far as a limit goes, which is looked at after each chunk.
std::uint64_t last_by(std::uint64_t first, std::uint64_t count, std::uint64_t end)
{
    return count == ALL ? end : std::min(end, first - 1 + (count + 999) / 1000 * 1000);
}

TEST_F(retrieval, WithoutACacheTheAnswerBeginsBehindTheStartEvent)
{
    for (std::uint64_t start : STARTS)
        for (std::uint64_t count : COUNTS) {
            const std::vector<std::uint64_t> expected = numbers(start + 1, last_by(start + 1, count, LENGTH));
            const answer whole = ask(start, count);
            EXPECT_EQ(whole.status, ATTEST_OK);
            EXPECT_EQ(whole.numbers, expected) << start << ' ' << count;
            EXPECT_EQ(whole.present, 7u) << "an answer without events says so by an empty list";
            EXPECT_EQ(stream(start, count), expected) << start << ' ' << count;
        }
    EXPECT_EQ(ima_cache_ctx.meta->last_event, 0u);
}

TEST_F(retrieval, FromTheCacheTheAnswerBeginsWithTheChunkOfTheStartEvent)
{
    fill_cache();
    for (std::uint64_t start : STARTS)
        for (std::uint64_t count : COUNTS) {
            const std::uint64_t first = start > 7000 ? 7001 : start == 0 ? 1 : (start - 1) / 1000 * 1000 + 1;
            std::uint64_t last = start > 7000 ? LENGTH : last_by(first, count, 7000);
            if (last == 7000 && (count == ALL || last - first + 1 < count))
                last = LENGTH; // the live list has a count of its own
            EXPECT_EQ(ask(start, count).numbers, numbers(first, last)) << start << ' ' << count;
            EXPECT_EQ(stream(start, count), numbers(first, last)) << start << ' ' << count;
        }
}

TEST_F(retrieval, ACacheThatWasCutBackRemovedOrDamagedChangesNoEvent)
{
    const std::pair<const char *, std::function<void()>> damages[] = {
        {"nothing yet", [] {}},
        {"a block removed", [] { remove_block(path_of(1).c_str()); }},
        {"the first block removed", [] { remove_block(path_of(0).c_str()); }},
        {"a block damaged", [] { damage_block(1, 2000); }},
        {"the last block damaged", [] { damage_block(2, 100); }},
        {"a block cut to nothing",
         [] {
             write_block(1, {1, 2, 3});
         }},
        {"metadata behind a block that cannot be read",
         [] {
             write_block(1, {1, 2, 3});
             ima_cache_ctx.metadata_behind = true;
         }},
        {"the directory removed",
         [] {
             for (unsigned block : {0u, 1u, 2u})
                 remove_block(path_of(block).c_str());
             remove_block(ima_cache_ctx.meta->cache_dir);
         }},
    };
    // By turns, as a request changes what it finds: each needs a cache of its own.
    const std::pair<std::uint64_t, bool> requests[] = {{0, false},    {0, true},    {1500, true},
                                                       {3000, false}, {3001, true}, {4500, false},
                                                       {6500, true},  {7200, false}};
    for (const auto &[what, damage] : damages)
        for (const auto &[start, as_stream] : requests) {
            reboot();
            ASSERT_EQ(restart(), 1);
            fill_cache();
            damage();
            sent = {};
            std::vector<std::uint64_t> got = as_stream ? stream(start, ALL) : ask(start, ALL).numbers;
            ASSERT_FALSE(got.empty()) << what << ' ' << start;
            EXPECT_LE(got.front(), start + 1) << what << ' ' << start;
            EXPECT_EQ(got, numbers(got.front(), LENGTH)) << what << ' ' << start;
        }
}

TEST_F(retrieval, ChunksThatTheCacheHasAlreadyDoNotEndTheCaching)
{
    write_list(ima_list(3500, LIST_KINDS));
    at_agent_state.ima_cache_ready = 1;
    EXPECT_EQ(ask(0, ALL, 1).status, ATTEST_ERR_MORE_DATA);
    EXPECT_EQ(ima_cache_ctx.meta->last_event, 3000u);
    write_list(list_bytes());
    // The cache is left at once, for the list from its begin on.
    refuse_send(0, FAIL);
    EXPECT_EQ(ask(0, ALL, 1).status, ATTEST_ERR_MORE_DATA);
    EXPECT_EQ(ima_cache_ctx.meta->last_event, 7000u);
}

TEST_F(retrieval, WhatCannotBeReadIsItsStatus)
{
    write_list(list_bytes() + std::string(24, '\0') + std::string("\x2c\1\0\0", 4) + std::string(300, 'x'));
    EXPECT_EQ(ask(0, ALL).status, ATTEST_ERR_EVENT_TOO_LONG);
    EXPECT_EQ(ask(0, ALL).present, 0u);
    const std::string record = ima_record(10, "ima-ng", std::string(100, 'd'));
    write_list(list_bytes() + record.substr(0, record.size() - 3));
    EXPECT_EQ(ask(7000, ALL).status, ATTEST_ERR_BOOT_LOG_READ);
    EXPECT_EQ(ask(0, 2000).numbers, numbers(1, 2000)) << "what is wrong lies behind the limit";
    const answer skipped = ask(8000, ALL);
    EXPECT_EQ(skipped.status, ATTEST_OK);
    EXPECT_TRUE(skipped.numbers.empty());
    ima_log_name = "/tmp/nowhere";
    EXPECT_EQ(ask(0, ALL).status, ATTEST_ERR_BOOT_LOG_READ);
    EXPECT_THAT(messages_raised, testing::Not(testing::IsEmpty()));
}

TEST_F(retrieval, AListThatIsShorterThanTheCacheGivesWhatTheCacheHas)
{
    fill_cache();
    write_list(std::string_view(list_bytes()).substr(0, 1000));
    trace_captured.clear();
    EXPECT_EQ(ask(0, ALL).numbers, numbers(1, 7000));
    EXPECT_TRUE(trace_has_part("The list ends before "));
}

TEST_F(retrieval, TheLimitOfTheDataSegmentStopsTheGrowthAndKeepsWhatThereIs)
{
    at_soft_data_limit = peak_resident_set() + 3'000'000;
    const answer got = ask(0, ALL);
    EXPECT_EQ(got.status, ATTEST_ERR_NO_MEMORY);
    EXPECT_TRUE(trace_has("attestation_get_local_ima_event_logs(): RLIMIT is hit"));
    EXPECT_EQ(got.numbers.size() % 1000, 0u);
    EXPECT_FALSE(got.numbers.empty());

    at_soft_data_limit = ~std::uint64_t{0};
    fill_cache();
    at_soft_data_limit = peak_resident_set() + 500'000;
    EXPECT_EQ(ask(0, ALL).status, ATTEST_ERR_NO_MEMORY) << "from the cache, too";
    EXPECT_EQ(stream(0, ALL), numbers(1, LENGTH)) << "a stream holds one chunk at a time";
}

TEST_F(retrieval, DuplicatesAreMarkedAlikeLiveAndFromTheCache)
{
    const auto marks = [] {
        owned_message<NodeIMAData> record;
        EXPECT_EQ(attestation_get_local_ima_event_logs(0, ALL, record.get(), CLIENT, 5, 0), ATTEST_OK);
        std::vector<int> marked;
        for (std::uint32_t i = 0; i < record->events.count; ++i)
            marked.push_back((record->events.items[i].present & IMA_EVENT::has_duplicate) != 0
                                 ? static_cast<int>(record->events.items[i].duplicate)
                                 : -1);
        return marked;
    };
    const std::vector<int> live = marks();
    EXPECT_NE(std::find(live.begin(), live.end(), 1), live.end());
    fill_cache();
    EXPECT_EQ(marks(), live);
}

} // namespace
