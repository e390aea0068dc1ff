// Records at the edges of what is allowed: what becomes of the event, of the list, of the trace.
#include <bit>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

#include "ima/ima_record_format.h"
#include "tests/ima/parsed_list.h"
#include "tests/message/counted_heap.h"
#include "tests/support/ima_list.h"
#include "tests/support/trace_capture.h"

namespace {

constexpr char CHUNK[] = "at_read_local_ima_chunk_from_file(): ";

const std::string DIGEST(32, '\x5a');
const std::string SHA256_FIELD = ima_digest_field("sha256", DIGEST);
const std::string GOOD = ima_record(10, "ima-ng", SHA256_FIELD + ima_name_field("/bin/good"));

class RecordReader : public testing::Test {
protected:
    void SetUp() override { trace_captured.clear(); }
};

// ---- failures that keep the event ----

constexpr std::uint32_t NO_FIELD = 0;
constexpr std::uint32_t DIGEST_FIELD = IMA_EVENT::has_digest | IMA_EVENT::has_digest_algo;
constexpr std::uint32_t NAME_FIELD = IMA_EVENT::has_event_name;

std::string digest_record(const std::string &field)
{
    return ima_record(10, "ima-ng", field + ima_name_field("/bin/x"));
}

TEST_F(RecordReader, KeepsTheEventWithoutTheFieldsThatItCannotRead)
{
    const struct {
        const char *what;
        std::string record;
        std::uint32_t present; // besides PCR, template hash and template name
        std::string said;
        int result;
    } cases[] = {
        {"an algorithm of 65", digest_record(ima_digest_field(std::string(65, 'a'), DIGEST)), NO_FIELD,
         "ima_eventdigest_ng_parse(): Hash algorithm name too long\n", -1},
        {"no digest", digest_record(ima_digest_field("sha256", "")), NO_FIELD,
         "ima_eventdigest_ng_parse(): DIGEST not found 0", -2},
        {"a digest without NUL", digest_record(ima_field_bytes("sha256:abcdef")), NO_FIELD,
         "Hash algorithm name missing", -1},
        {"a digest without algorithm", digest_record(ima_field_bytes(std::string(33, '\0'))), NO_FIELD,
         "Hash algorithm name missing", -1},
        {"an empty digest field", digest_record(ima_field_bytes("")), NO_FIELD, "Hash algorithm name missing",
         -1},
        {"an old name of 257", ima_record(10, "n", ima_field_bytes(std::string(257, 'n'))), NO_FIELD,
         "ima_eventname_parse(): Event name too long\n", -1},
        {"an unknown third field",
         ima_record(10, "d-ng|n-ng|buf", SHA256_FIELD + ima_name_field("x") + ima_field_bytes("?")),
         DIGEST_FIELD | NAME_FIELD, "parse_template_data(): Field 'buf' not supported\n", 0},
        {"no field between bars", ima_record(10, "d-ng||n-ng", SHA256_FIELD), DIGEST_FIELD,
         "parse_template_data(): Field '' not supported\n", 0},
        {"an identifier of 16", ima_record(10, "d-ng|abcdefghijklmnop", SHA256_FIELD), DIGEST_FIELD,
         "Field 'abcdefghijklmnop' not supported\n", 0},
        {"a field past the data", ima_record(10, "ima-ng", SHA256_FIELD + std::string("\x7\0\0\0abc", 7)),
         DIGEST_FIELD, "Parsing of 'n-ng' field failed, result: -1\n", -1},
        {"a field of 4 GiB", ima_record(10, "ima-ng", "\xff\xff\xff\xff" + DIGEST), NO_FIELD,
         "Parsing of 'd-ng' field failed, result: -1\n", -1},
        {"a length past the data", ima_record(10, "ima-sig", SHA256_FIELD + ima_name_field("x") + "\1"),
         DIGEST_FIELD | NAME_FIELD, "Parsing of 'sig' field failed, result: -1\n", -1},
        {"a listed old digest of 19 at the end", ima_record(10, "d", ima_field_bytes(std::string(19, 'd'))),
         NO_FIELD, "Parsing of 'd' field failed, result: -1\n", -1},
    };
    for (const auto &[what, record, present, said, result] : cases) {
        SCOPED_TRACE(what);
        trace_captured.clear();
        parsed_list list(GOOD + record + GOOD);
        EXPECT_EQ(list.end, ima_record_outcome::end_of_log);
        ASSERT_EQ(list.events.size(), 3);
        EXPECT_EQ(list.events[1].present,
                  present | IMA_EVENT::has_pcr | IMA_EVENT::has_template_hash | IMA_EVENT::has_template_name);
        EXPECT_STREQ(list.events[2].event_name, "/bin/good");
        EXPECT_TRUE(trace_has_part(said)) << testing::PrintToString(trace_captured);
        EXPECT_TRUE(trace_has(std::string(CHUNK) + "Parsing of measurement entry failed 1"));
        if (result != 0) {
            EXPECT_TRUE(trace_has_part("field failed, result: " + std::to_string(result) + "\n"));
        }
    }
}

// ---- what is allowed ----

TEST_F(RecordReader, TakesTheLongestThatIsAllowed)
{
    std::string long_template = "d-ng|n-ng|" + std::string(245, 'x');
    ASSERT_EQ(long_template.size(), 255);
    parsed_list list(
        ima_record(11, long_template, SHA256_FIELD + ima_name_field("a")) +
        digest_record(ima_digest_field(std::string(64, 'a'), DIGEST)) +
        ima_old_record(10, std::string(20, 'd'), std::string(256, 'n')) +
        ima_record(10, "n|n-ng",
                   ima_field_bytes(std::string(256, 'm')) + ima_name_field(std::string(70000, 'l'))) +
        ima_record(10, "sig", ima_field_bytes(std::string(IMA_TEMPLATE_DATA_MAX - 4, 's'))) +
        ima_record(10, "d-ng|sig|sig|d-ng",
                   ima_digest_field("sha1", "first") + ima_field_bytes("one") + ima_field_bytes("two") +
                       SHA256_FIELD) +
        GOOD);
    EXPECT_EQ(list.end, ima_record_outcome::end_of_log);
    ASSERT_EQ(list.events.size(), 7);
    EXPECT_EQ(list.events[0].template_name, long_template);
    EXPECT_EQ(list.events[0].pcr, 11);
    EXPECT_EQ(list.events[1].digest_algo, std::string(64, 'a'));
    EXPECT_EQ(text_of(list.events[1].digest), DIGEST);
    EXPECT_EQ(list.events[2].event_name, std::string(256, 'n'));
    EXPECT_EQ(list.events[3].event_name, std::string(70000, 'l')) << "the second name counts";
    EXPECT_EQ(list.events[4].signature.length, IMA_TEMPLATE_DATA_MAX - 4);
    EXPECT_STREQ(list.events[5].digest_algo, "sha256") << "of digests and signatures, too";
    EXPECT_EQ(text_of(list.events[5].digest), DIGEST);
    EXPECT_EQ(text_of(list.events[5].signature), "two");
    EXPECT_STREQ(list.events[6].event_name, "/bin/good");
}

TEST_F(RecordReader, TakesAnotherNameForTheOldTemplate)
{
    // "ima" alone has no data length; "d|n" says the same fields with lengths.
    parsed_list list(
        ima_old_record(10, std::string(20, 'd'), "/bin/old") +
        ima_record(10, "d|n", ima_field_bytes("short") + ima_field_bytes(std::string("name\0hidden", 11))) +
        ima_record(10, "ima2", ima_field_bytes("?")) + GOOD);
    ASSERT_EQ(list.events.size(), 4);
    EXPECT_STREQ(list.events[0].digest_algo, "SHA1");
    EXPECT_EQ(text_of(list.events[0].digest), std::string(20, 'd'));
    EXPECT_STREQ(list.events[0].event_name, "/bin/old");
    // Always 20 bytes, also past the field, never past the data.
    EXPECT_EQ(text_of(list.events[1].digest), std::string("short\x0b\0\0\0name\0hidden", 20));
    EXPECT_STREQ(list.events[1].event_name, "name");
    EXPECT_TRUE(trace_has("ima_parse_string(): name"));
    EXPECT_TRUE(trace_has("parse_template_data(): Field 'ima2' not supported\n"));
}

TEST_F(RecordReader, SetsNoSignatureThatIsNotThere)
{
    const std::string fields = SHA256_FIELD + ima_name_field("x");
    parsed_list list(ima_record(10, "ima-sig", fields + ima_field_bytes("")) +
                     ima_record(10, "ima-sig", fields + ima_field_bytes("\3\2")));
    ASSERT_EQ(list.events.size(), 2);
    EXPECT_EQ(list.events[0].present & IMA_EVENT::has_signature, 0);
    EXPECT_EQ(text_of(list.events[1].signature), "\3\2");
    EXPECT_FALSE(trace_has_part("failed"));
    EXPECT_TRUE(trace_has("ima_eventdigest_ng_parse(): sha256:"));
}

// ---- what ends the list ----

std::string with_data_length(std::string record, std::size_t data_length, std::uint32_t written)
{
    std::memcpy(record.data() + record.size() - data_length - 4, &written, 4);
    return record;
}

TEST_F(RecordReader, EndsTheListAtARecordThatHasNoEnd)
{
    const struct {
        const char *what;
        std::string record;
        std::uint32_t status;
        std::string said;
    } cases[] = {
        {"a template name of 256", ima_record(10, std::string(256, 'x'), "data"), 4,
         std::string(CHUNK) + "256 ERROR: event name too long!\n"},
        {"a template name of 4 GiB", std::string(24, '\0') + "\xff\xff\xff\xff", 4,
         std::string(CHUNK) + "-1 ERROR: event name too long!\n"},
        {"no data", ima_record(10, "ima-ng", ""), 3, "read_template_data(): Failed to read template data\n"},
        {"data beyond the limit",
         with_data_length(ima_record(10, "sig", "data"), 4, IMA_TEMPLATE_DATA_MAX + 1), 3,
         "read_template_data(): Failed to read template data\n"},
        {"cut data", with_data_length(ima_record(10, "sig", "data"), 4, 5), 3,
         "read_template_data(): Failed to read template data\n"},
        {"an old name of 257", ima_old_record(10, std::string(20, 'd'), std::string(257, 'n')), 3,
         "read_template_data(): ERROR: invalid field len read \n"},
    };
    for (const auto &[what, record, status, said] : cases) {
        SCOPED_TRACE(what);
        trace_captured.clear();
        parsed_list list(GOOD + record);
        EXPECT_EQ(list.end, ima_record_outcome::failed);
        EXPECT_EQ(list.status, status);
        EXPECT_EQ(list.events.size(), 2);
        EXPECT_TRUE(trace_has(said)) << testing::PrintToString(trace_captured);
        EXPECT_EQ(trace_has(std::string(CHUNK) + "Reading of measurement entry failed 1"), status == 3);
    }
}

TEST_F(RecordReader, AllocatesNothingForALengthThatItRefuses)
{
    list_file file(with_data_length(ima_record(10, "sig", "data"), 4, IMA_TEMPLATE_DATA_MAX + 1));
    trace_capture_switch_off(true); // its lines come from another heap
    heap.peak_bytes = heap.live_bytes;
    std::size_t before = heap.live_bytes;
    parsed_list list(file);
    EXPECT_EQ(list.end, ima_record_outcome::failed);
    EXPECT_LT(heap.peak_bytes - before, 1 << 20);
    trace_capture_switch_off(false);
}

TEST_F(RecordReader, AllocatesTheCopiesAlone)
{
    list_file file(ima_list(600, IMA_KIND_ALL));
    trace_capture_switch_off(true);
    ima_log log;
    ASSERT_EQ(ima_log_open(log, file.path().c_str()), 0);
    std::uint32_t status = 0;
    for (int i = 0; i < 600; ++i) {
        owned_message<IMA_EVENT> event;
        long before = heap.allocations;
        ASSERT_EQ(at_read_ima_record(log, 0, event.get(), &status), ima_record_outcome::read);
        EXPECT_EQ(heap.allocations - before, std::popcount(event->present & ~IMA_EVENT::has_pcr)) << i;
    }
    trace_capture_switch_off(false);
}

// A list cut at every byte: what was whole before stays, and nothing else is said than the cut.
TEST_F(RecordReader, EndsAtACut)
{
    std::string old = ima_old_record(10, std::string(20, 'd'), "/bin/old");
    for (const std::string &last : {GOOD, old, ima_list(1, IMA_KIND_SIG, 3)}) {
        for (std::size_t length = 0; length < last.size(); ++length) {
            parsed_list list(GOOD + last.substr(0, length));
            ASSERT_GE(list.events.size(), 1);
            EXPECT_STREQ(list.events[0].event_name, "/bin/good");
            bool only_name_cut = last == old && length >= old.size() - 8;
            auto expected = length < IMA_RECORD_HEADER_SIZE || only_name_cut ? ima_record_outcome::end_of_log
                                                                             : ima_record_outcome::failed;
            EXPECT_EQ(list.end, expected) << length;
            if (only_name_cut) {
                EXPECT_EQ(list.events[1].event_name,
                          std::string("/bin/old").substr(0, 8 + length - old.size()));
            }
        }
    }
    EXPECT_TRUE(trace_has("read_template_data(): ERROR: insufficient field data read \n"));
}

// Every allocation fails once, and from then on: the list is still read, or refused with a status.
TEST_F(RecordReader, SurvivesWithoutMemory)
{
    list_file file(ima_list(6, IMA_KIND_ALL) +
                   ima_record(10, "sig", ima_field_bytes(std::string(400000, 's'))) + GOOD);
    for (long count : {1L, 1000000L}) {
        bool refused = true;
        for (long n = 1; refused; ++n) {
            ima_log log;
            std::uint32_t status = 0;
            ima_record_outcome outcome = ima_record_outcome::failed;
            heap.refuse_from = heap.allocations + n;
            heap.refuse_count = count;
            if (ima_log_open(log, file.path().c_str()) == 0) {
                do {
                    owned_message<IMA_EVENT> event;
                    outcome = at_read_ima_record(log, 0, event.get(), &status);
                } while (outcome == ima_record_outcome::read);
            }
            refused = heap.allocations >= heap.refuse_from;
            heap.refuse_from = 0;
            if (outcome == ima_record_outcome::failed) {
                EXPECT_TRUE(status == 0 || trace_has_part("read_template_data(): ERROR: out of memory\n"));
            }
        }
    }
    EXPECT_TRUE(trace_has("ima_parse_string(): Out of memory\n"));
    EXPECT_TRUE(trace_has("ima_eventsig_parse(): No memory"));
    EXPECT_TRUE(trace_has("ima_eventdigest_ng_parse(): No memory"));
    EXPECT_TRUE(trace_has("ima_eventdigest_parse(): No memory"));
}

// ---- the log's buffer ----

// As the kernel hands the list out, only worse: some bytes at a time.
TEST_F(RecordReader, TakesReadsInPieces)
{
    std::string bytes = ima_list(200, IMA_KIND_ALL);
    parsed_list whole(bytes);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::thread writer([&] {
        for (std::size_t at = 0, step = 1; at < bytes.size(); at += step, step = step % 97 + 1)
            EXPECT_GT(write(ends[1], bytes.data() + at, std::min(step, bytes.size() - at)), 0);
        close(ends[1]);
    });
    ima_log log;
    ASSERT_EQ(ima_log_open(log, ("/proc/self/fd/" + std::to_string(ends[0])).c_str()), 0);
    close(ends[0]);
    for (const IMA_EVENT &expected : whole.events) {
        owned_message<IMA_EVENT> event;
        std::uint32_t status = 0;
        ASSERT_EQ(at_read_ima_record(log, 0, event.get(), &status), ima_record_outcome::read);
        EXPECT_STREQ(event->event_name, expected.event_name);
    }
    writer.join();
}

TEST_F(RecordReader, KeepsItsPlaceInTheFile)
{
    std::string big = ima_record(10, "sig", ima_field_bytes(std::string(700000, 's')));
    std::string bytes = ima_list(1000, IMA_KIND_ALL) + big + ima_list(1000, IMA_KIND_ALL, 2);
    list_file file(bytes);
    parsed_list whole(file);
    ASSERT_EQ(whole.events.size(), 2001);
    ima_log log;
    ASSERT_EQ(ima_log_open(log, file.path().c_str()), 0);
    std::vector<std::uint64_t> offsets;
    std::uint32_t status = 0;
    ima_record_outcome outcome = ima_record_outcome::read;
    while (outcome == ima_record_outcome::read) {
        offsets.push_back(ima_log_position(log));
        owned_message<IMA_EVENT> event;
        outcome = at_read_ima_record(log, 0, event.get(), &status);
    }
    EXPECT_EQ(offsets.size(), 2002);
    EXPECT_EQ(offsets.back(), bytes.size());
    for (std::size_t i : {1999, 3, 999, 1001, 1000, 2000, 0}) {
        ASSERT_TRUE(ima_log_seek(log, offsets[i]));
        EXPECT_EQ(ima_log_position(log), offsets[i]);
        owned_message<IMA_EVENT> event;
        ASSERT_EQ(at_read_ima_record(log, 0, event.get(), &status), ima_record_outcome::read);
        EXPECT_EQ(text_of(event->template_hash), text_of(whole.events[i].template_hash)) << i;
    }
    ASSERT_TRUE(ima_log_seek(log, bytes.size() + 100));
    owned_message<IMA_EVENT> event;
    EXPECT_EQ(at_read_ima_record(log, 0, event.get(), &status), ima_record_outcome::end_of_log);
    EXPECT_FALSE(ima_log_seek(log, ~std::uint64_t{0}));
    EXPECT_NE(ima_log_open(log, "/nowhere"), 0);
}

} // namespace
