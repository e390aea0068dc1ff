#include "tests/ima/retrieval_of_test.h"

#include <cstring>
#include <fstream>

#include "agent/status.h"
#include "ima/ima_log.h"
#include "ima/ima_retrieval.h"
#include "ima/ima_stream.h"
#include "ima/retrieval_state.h"
#include "ima_cache/shm_table.h"
#include "tests/ima/parsed_list.h"
#include "tests/support/trace_capture.h"

sent_messages sent;

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

std::vector<std::uint64_t> numbers(std::uint64_t first, std::uint64_t last)
{
    std::vector<std::uint64_t> all;
    for (std::uint64_t number = first; number <= last; ++number)
        all.push_back(number);
    return all;
}

namespace {

const parsed_list &list_events()
{
    static const parsed_list events{list_bytes()};
    return events;
}

bool same_bytes(const message_bytes &a, const message_bytes &b)
{
    return a.length == b.length && (a.length == 0 || std::memcmp(a.data, b.data, a.length) == 0);
}

std::string_view name_of(const IMA_EVENT &event)
{
    return event.event_name != nullptr ? event.event_name : "";
}

void compare_with_list(const IMA_EVENT *events, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(events[i].event_num >= 1 && events[i].event_num <= LENGTH) << events[i].event_num;
        const IMA_EVENT &listed = list_events().events[events[i].event_num - 1];
        ASSERT_TRUE(name_of(events[i]) == name_of(listed) && same_bytes(events[i].digest, listed.digest) &&
                    same_bytes(events[i].template_hash, listed.template_hash))
            << "event " << events[i].event_num;
    }
}

// What the handler does with a last message that is refused. False: it has no events.
bool pause_at_end(const answer &last, std::uint64_t count)
{
    sent.refuses_end = false;
    sent.context = STREAM_PAUSED_MARK;
    const std::vector<std::uint64_t> &events = last.numbers;
    return !events.empty() && at_ima_stream_pause(CLIENT, 5, events.front(), count != ALL ? events.size() : 0,
                                                  events.front()) == 1;
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

retrieval_of_test::retrieval_of_test()
{
    setenv("ATTEST_NODE_NAME", "card7", 1);
    at_agent_state = {};
    at_soft_data_limit = ~std::uint64_t{0};
    write_list(list_bytes());
    ima_log_name = "/tmp/list";
    sent = {};
    trace_captured.clear();
}

retrieval_of_test::~retrieval_of_test()
{
    delete at_agent_state.at_ima_ht; // the agent keeps its one to its end
    at_agent_state = {};
}

void retrieval_of_test::write_list(std::string_view bytes)
{
    std::ofstream("/tmp/list", std::ios::binary | std::ios::trunc) << bytes;
}

answer retrieval_of_test::ask(std::uint64_t start, std::uint64_t count, int stream, std::uint64_t unsent)
{
    owned_message<NodeIMAData> record;
    answer got;
    got.status = attestation_get_local_ima_event_logs(start, count, record.get(), CLIENT, 5, stream, unsent);
    got.present = record->present;
    compare_with_list(record->events.items, record->events.count);
    for (std::uint32_t i = 0; i < record->events.count; ++i)
        got.numbers.push_back(record->events.items[i].event_num);
    return got;
}

std::vector<std::uint64_t> retrieval_of_test::stream(std::uint64_t start, std::uint64_t count)
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

void retrieval_of_test::fill_cache()
{
    at_agent_state.ima_cache_ready = 1;
    sent = {};
    EXPECT_EQ(ask(0, ALL, 1).status, ATTEST_ERR_MORE_DATA);
    EXPECT_EQ(ima_cache_ctx.meta->last_event, 7000u);
}
