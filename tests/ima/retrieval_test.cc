// Whole retrievals of a list, whole or as a stream, with and without a cache: every event that comes is
// compared with the list.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gmock/gmock.h>

#include "agent/agent_state.h"
#include "agent/status.h"
#include "ima/ima_log.h"
#include "ima/ima_retrieval.h"
#include "ima/ima_stream.h"
#include "ima/retrieval_state.h"
#include "ima_cache/cache_block.h"
#include "ima_cache/shm_table.h"
#include "tests/ima/parsed_list.h"
#include "tests/ima_cache/cache_of_test.h"
#include "tests/support/ima_list.h"
#include "tests/support/trace_capture.h"

namespace {

using testing::ElementsAre;

constexpr remote_attestation_api_client CLIENT = 77;
constexpr std::uint64_t LENGTH = 7500;
constexpr std::uint64_t ALL = 0;
constexpr unsigned LIST_KINDS = IMA_KIND_OLD | IMA_KIND_NG | IMA_KIND_SIG | IMA_KIND_LISTED;

constexpr std::int32_t PAUSE = -3;
constexpr std::int32_t FAIL = -1;

// What the client has been sent, and which message it does not take.
struct sent_messages {
    int refused = -1; // the number of the send, from 0
    std::int32_t result = 0;
    int sends = 0;
    bool refuses_end = false; // once
    std::vector<std::uint64_t> numbers;
    std::vector<std::size_t> sizes; // of the messages
    std::uint64_t context = 0;
} sent;

void refuse_send(int number, std::int32_t result)
{
    sent = {};
    sent.refused = number;
    sent.result = result;
}

const std::string &list_bytes()
{
    static const std::string bytes = ima_list(LENGTH, LIST_KINDS);
    return bytes;
}

const parsed_list &list_events()
{
    static const parsed_list events{list_bytes()};
    return events;
}

std::string content_of(const IMA_EVENT &event)
{
    return std::string(event.event_name != nullptr ? event.event_name : "") + '\0' + text_of(event.digest) +
           '\0' + text_of(event.template_hash);
}

void compare_with_list(const IMA_EVENT *events, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(events[i].event_num >= 1 && events[i].event_num <= LENGTH) << events[i].event_num;
        ASSERT_EQ(content_of(events[i]), content_of(list_events().events[events[i].event_num - 1]))
            << "event " << events[i].event_num;
    }
}

} // namespace

std::int32_t remote_attestation_api_stream_ima_event_logs_Resp(remote_attestation_api_client client,
                                                               const NodeIMAData *message, int last,
                                                               std::uint32_t, std::uint32_t request_id)
{
    EXPECT_EQ(client, CLIENT);
    EXPECT_EQ(request_id, 5u);
    EXPECT_EQ(last, 0);
    EXPECT_STREQ(message->node_name, "card7");
    if (sent.sends++ == sent.refused)
        return sent.result;
    compare_with_list(message->events.items, message->events.count);
    sent.sizes.push_back(message->events.count);
    for (std::uint32_t i = 0; i < message->events.count; ++i)
        sent.numbers.push_back(message->events.items[i].event_num);
    return 0;
}

void remote_attestation_api_server_set_user_context(remote_attestation_api_client client,
                                                    std::uint64_t context)
{
    EXPECT_EQ(client, CLIENT);
    sent.context = context;
}

namespace {

std::vector<std::uint64_t> numbers(std::uint64_t first, std::uint64_t last)
{
    std::vector<std::uint64_t> all;
    for (std::uint64_t number = first; number <= last; ++number)
        all.push_back(number);
    return all;
}

struct answer {
    std::uint32_t status = 0;
    std::vector<std::uint64_t> numbers;
    std::uint32_t present = 0;
};

class retrieval_test : public cache_of_test {
protected:
    retrieval_test()
    {
        setenv("ATTEST_NODE_NAME", "card7", 1);
        at_agent_state = {};
        at_soft_data_limit = ~std::uint64_t{0};
        write_list(list_bytes());
        ima_log_name = "/tmp/list";
        sent = {};
        trace_captured.clear();
    }
    ~retrieval_test() override
    {
        delete at_agent_state.at_ima_ht; // the agent keeps its one to its end
        at_agent_state = {};
    }

    static void write_list(std::string_view bytes)
    {
        std::ofstream("/tmp/list", std::ios::binary | std::ios::trunc) << bytes;
    }

    static answer ask(std::uint64_t start, std::uint64_t count, int stream = 0, std::uint64_t unsent = 0)
    {
        owned_message<NodeIMAData> record;
        answer got;
        got.status =
            attestation_get_local_ima_event_logs(start, count, record.get(), CLIENT, 5, stream, unsent);
        got.present = record->present;
        compare_with_list(record->events.items, record->events.count);
        for (std::uint32_t i = 0; i < record->events.count; ++i)
            got.numbers.push_back(record->events.items[i].event_num);
        return got;
    }

    static void fail_new_blocks()
    {
        std::filesystem::create_directory(new_block_path(*ima_cache_ctx.meta).text);
    }

    // What the handler does with a last message that is refused. False: it has no events.
    static bool pause_at_end(const answer &last, std::uint64_t count)
    {
        sent.refuses_end = false;
        sent.context = STREAM_PAUSED_MARK;
        const std::vector<std::uint64_t> &events = last.numbers;
        return !events.empty() && at_ima_stream_pause(CLIENT, 5, events.front(),
                                                      count != ALL ? events.size() : 0, events.front()) == 1;
    }

    // A stream from its begin to its end, resumed as often as it is paused: everything that came.
    static std::vector<std::uint64_t> stream(std::uint64_t start, std::uint64_t count)
    {
        sent.numbers.clear();
        answer got = ask(start, count, 1);
        for (int resumed = 0; resumed < 20; ++resumed) {
            if (got.status == ATTEST_ERR_MORE_DATA && !(sent.refuses_end && pause_at_end(got, count)))
                break;
            EXPECT_EQ(sent.context, STREAM_PAUSED_MARK);
            std::uint32_t id = 0;
            std::uint64_t unsent = 0;
            EXPECT_EQ(at_ima_stream_resume(CLIENT, &id, &start, &count, &unsent), 1);
            got = ask(start, count, 1, unsent);
        }
        EXPECT_EQ(got.status, ATTEST_ERR_MORE_DATA);
        std::vector<std::uint64_t> all = sent.numbers;
        all.insert(all.end(), got.numbers.begin(), got.numbers.end());
        return all;
    }

    // The cache, filled by a request for everything.
    static void fill_cache()
    {
        at_agent_state.ima_cache_ready = 1;
        sent = {};
        EXPECT_EQ(ask(0, ALL, 1).status, ATTEST_ERR_MORE_DATA);
        EXPECT_EQ(ima_cache_ctx.meta->last_event, 7000u);
    }
};

constexpr std::uint64_t STARTS[] = {0,    1,    500,  999,  1000, 1001, 1500, 2999, 3000,
                                    3001, 5000, 6000, 6001, 7000, 7001, 7499, 7500, 9000};
constexpr std::uint64_t COUNTS[] = {ALL, 1, 1000, 1001, 2500, 20000};

// As far as a limit goes, which is looked at after each chunk.
std::uint64_t last_by(std::uint64_t first, std::uint64_t count, std::uint64_t end)
{
    return count == ALL ? end : std::min(end, first - 1 + (count + 999) / 1000 * 1000);
}

TEST_F(retrieval_test, WithoutACacheTheAnswerBeginsBehindTheStartEvent)
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

TEST_F(retrieval_test, FromTheCacheTheAnswerBeginsWithTheChunkOfTheStartEvent)
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

TEST_F(retrieval_test, ACacheThatWasCutBackRemovedOrDamagedChangesNoEvent)
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
    for (const auto &[what, damage] : damages)
        for (std::uint64_t start : {0u, 1500u, 3000u, 3001u, 4500u, 6500u, 7200u})
            for (int as_stream : {0, 1}) {
                reboot();
                ASSERT_EQ(restart(), 1);
                fill_cache();
                damage();
                sent = {};
                std::vector<std::uint64_t> got =
                    as_stream != 0 ? stream(start, ALL) : ask(start, ALL).numbers;
                ASSERT_FALSE(got.empty()) << what << ' ' << start;
                EXPECT_LE(got.front(), start + 1) << what << ' ' << start;
                EXPECT_EQ(got, numbers(got.front(), LENGTH)) << what << ' ' << start;
            }
}

TEST_F(retrieval_test, APausedStreamGoesOnWithTheRefusedChunk)
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

TEST_F(retrieval_test, AStreamGoesOnWithTheRefusedChunkWhateverBecomesOfTheCache)
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

TEST_F(retrieval_test, AStreamFromInsideAChunkRepeatsNothingOfACacheThatGrewMeanwhile)
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

TEST_F(retrieval_test, WhereAPausedStreamGoesOnIsRecordedByItsPlace)
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

TEST_F(retrieval_test, AFailedSendEndsWithAMessageWithoutAnyField)
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

TEST_F(retrieval_test, ChunksThatTheCacheHasAlreadyDoNotEndTheCaching)
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

TEST_F(retrieval_test, WhatCannotBeReadIsItsStatus)
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

TEST_F(retrieval_test, AListThatIsShorterThanTheCacheGivesWhatTheCacheHas)
{
    fill_cache();
    write_list(std::string_view(list_bytes()).substr(0, 1000));
    trace_captured.clear();
    EXPECT_EQ(ask(0, ALL).numbers, numbers(1, 7000));
    EXPECT_TRUE(trace_has_part("The list ends before "));
}

TEST_F(retrieval_test, TheLimitOfTheDataSegmentStopsTheGrowthAndKeepsWhatThereIs)
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

TEST_F(retrieval_test, DuplicatesAreMarkedAlikeLiveAndFromTheCache)
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
