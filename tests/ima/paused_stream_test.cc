// Streams whose client does not take a message: paused and resumed, or ended.
#include <algorithm>
#include <filesystem>
#include <functional>
#include <utility>

#include <gmock/gmock.h>

#include "agent/status.h"
#include "ima/retrieval_state.h"
#include "tests/ima/retrieval_of_test.h"
#include "tests/support/trace_capture.h"

namespace {

using testing::ElementsAre;

class paused_stream : public retrieval_of_test {
protected:
    static void fail_new_blocks()
    {
        std::filesystem::create_directory(new_block_path(*ima_cache_ctx.meta).text);
    }
};

TEST_F(paused_stream, APausedStreamGoesOnWithTheRefusedChunk)
{
    for (std::uint32_t ready : {0u, 1u})
        for (std::uint64_t start : {std::uint64_t{0}, std::uint64_t{1700}})
            for (std::uint64_t count : {ALL, std::uint64_t{4000}}) {
                at_agent_state.ima_cache_ready = ready;
                const std::vector<std::uint64_t> undisturbed = stream(start, count);
                for (int refused = 0; refused < 6; ++refused) {
                    refuse_send(refused, PAUSE);
                    std::vector<std::uint64_t> got = stream(start, count);
                    EXPECT_EQ(got.front(), undisturbed.front()) << ready << ' ' << start << ' ' << refused;
                    EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
                    EXPECT_EQ(std::adjacent_find(got.begin(), got.end()), got.end()) << "an event twice";
                    EXPECT_EQ(got.back() - got.front() + 1, got.size()) << "an event is missing";
                    // A live chunk that was refused counts against the limit all the same.
                    EXPECT_GE(got.back() + (count == ALL ? 0 : 1000), undisturbed.back());
                }
            }
}

TEST_F(paused_stream, AStreamGoesOnWithTheRefusedChunkWhateverBecomesOfTheCache)
{
    const struct {
        const char *what;
        std::uint32_t ready;
        std::uint64_t cached; // before the stream
        std::function<void()> then;
    } cases[] = {
        {"no cache", 0, 0, [] {}},
        {"an empty cache that takes nothing", 1, 0, fail_new_blocks},
        {"a cache that has ceased to grow", 1, 3500, fail_new_blocks},
        {"a first block that cannot be read", 1, 7500,
         [] {
             write_block(0, {1, 2, 3});
         }},
        {"a cache that grows", 1, 3500, [] {}},
    };
    for (const auto &[what, ready, cached, then] : cases)
        for (int refused = 0; refused < 8; ++refused) {
            SCOPED_TRACE(std::string(what) + ", send " + std::to_string(refused));
            reboot();
            ASSERT_EQ(restart(), 1);
            at_agent_state.ima_cache_ready = ready;
            refuse_send(-1, 0);
            write_list(ima_list(cached, LIST_KINDS));
            stream(0, ALL);
            write_list(list_bytes());
            then();
            refuse_send(refused, PAUSE);
            sent.refuses_end = true;
            EXPECT_EQ(stream(0, ALL), numbers(1, LENGTH));
        }
}

TEST_F(paused_stream, AStreamFromInsideAChunkRepeatsNothingOfACacheThatGrewMeanwhile)
{
    at_agent_state.ima_cache_ready = 1;
    refuse_send(1, PAUSE);
    ASSERT_EQ(ask(1500, ALL, 1).status, ATTEST_ERR_FLOW_PAUSED);
    const at_paused_stream_slot slot = std::exchange(at_agent_state.at_paused_stream, {});
    fill_cache();
    sent = {};
    const answer rest = ask(slot.start_event, slot.event_count, 1, slot.unsent);
    EXPECT_EQ(sent.numbers, numbers(2501, 7000));
    EXPECT_EQ(rest.numbers, numbers(7001, LENGTH));
}

TEST_F(paused_stream, WhereAPausedStreamGoesOnIsRecordedByItsPlace)
{
    refuse_send(2, PAUSE);
    EXPECT_EQ(ask(0, ALL, 1).status, ATTEST_ERR_FLOW_PAUSED);
    EXPECT_EQ(at_agent_state.at_paused_stream.start_event, 2000u);
    EXPECT_EQ(at_agent_state.at_paused_stream.event_count, 0u);
    EXPECT_THAT(sent.sizes, ElementsAre(1000, 1000));
    refuse_send(2, PAUSE);
    const answer second = ask(0, ALL, 1);
    EXPECT_EQ(second.status, ATTEST_ERR_MORE_DATA) << "the slot is taken: the second stream gives up";
    EXPECT_EQ(second.present, 0u);
    at_agent_state.at_paused_stream = {};

    at_agent_state.ima_cache_ready = 1;
    sent.sends = 0;
    EXPECT_EQ(ask(0, 6000, 1).status, ATTEST_ERR_FLOW_PAUSED);
    EXPECT_EQ(at_agent_state.at_paused_stream.start_event, 2001u);
    EXPECT_EQ(at_agent_state.at_paused_stream.event_count, 3000u) << "the refused chunk was read";
}

TEST_F(paused_stream, AFailedSendEndsWithAMessageWithoutAnyField)
{
    struct {
        std::uint32_t ready;
        std::uint64_t start;
        int failed;                      // send
        std::vector<std::uint64_t> next; // first event of the next message, if one is sent
    } const cases[] = {
        {0, 0, 1, {}},
        // From a cache that is left, the live list is read: from the begin of the block of the last event
        // that was sent behind the first chunk, or of the start event.
        {1, 0, 0, {1}},
        {1, 0, 1, {1}},
        {1, 0, 4, {3001}},
        {1, 0, 6, {3001}},
        {1, 4500, 0, {3001}},
        {1, 6500, 0, {6001}},
    };
    fill_cache();
    for (const auto &row : cases) {
        at_agent_state.ima_cache_ready = row.ready;
        refuse_send(row.failed, FAIL);
        const answer got = ask(row.start, ALL, 1);
        EXPECT_EQ(got.status, ATTEST_ERR_MORE_DATA);
        EXPECT_EQ(got.present, 0u);
        EXPECT_TRUE(trace_has_part("CAPI send failed -1"));
        const std::size_t behind = static_cast<std::size_t>(row.failed) * 1000;
        std::vector<std::uint64_t> next(sent.numbers.begin() + static_cast<std::ptrdiff_t>(behind),
                                        sent.numbers.end());
        next.resize(std::min<std::size_t>(next.size(), 1));
        EXPECT_EQ(next, row.next) << row.ready << ' ' << row.start << ' ' << row.failed;
    }
}

} // namespace
