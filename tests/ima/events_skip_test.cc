// Going to a place in the list, over records that nobody has looked at before.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits>
#include <unistd.h>

#include "ima/ima_events_skip.h"
#include "tests/ima/parsed_list.h"
#include "tests/support/ima_list.h"
#include "tests/support/trace_capture.h"

namespace {

const std::string GOOD =
    ima_record(10, "ima-ng", ima_digest_field("sha256", std::string(32, 'd')) + ima_name_field("/bin/good"));
const std::string OLD = ima_old_record(10, std::string(20, 'd'), "/bin/old");
const std::string NAMELESS = ima_record(10, "", "data");

std::string with_data_length(std::uint32_t length)
{
    std::string record = ima_record(10, "ima-ng", "");
    return record.replace(record.size() - sizeof length, sizeof length,
                          reinterpret_cast<const char *>(&length), sizeof length);
}

ima_log open_list(const std::string &path)
{
    ima_log log;
    EXPECT_EQ(ima_log_open(log, path.c_str()), 0);
    return log;
}

TEST(EventsSkip, GoesBehindRecordsAndNoFurtherThanTheList)
{
    const struct {
        const char *what;
        std::string list;
        std::uint64_t count;
        bool skipped;
        std::uint64_t had;    // of the records
        std::size_t position; // behind what was skipped
    } cases[] = {
        {"every kind", GOOD + OLD + NAMELESS + GOOD, 3, true, 3, (GOOD + OLD + NAMELESS).size()},
        {"nothing", GOOD, 0, true, 0, 0},
        {"more than there are", GOOD + OLD, 7, true, 2, (GOOD + OLD).size()},
        {"a head that is cut, as at the end", GOOD + GOOD.substr(0, 20), 2, true, 1, GOOD.size() + 20},
        {"a name that is cut", GOOD + GOOD.substr(0, 30), 2, false, 0, 0},
        {"a name that is too long", ima_record(10, std::string(300, 'n'), "data"), 1, false, 0, 0},
        {"a length that is cut", GOOD.substr(0, 4 + 20 + 4 + 6 + 3), 1, false, 0, 0},
        {"a length of 31 bits", with_data_length(0x7fffffff), 1, true, 1,
         with_data_length(0).size() + 0x7fffffff},
        {"a length that would lead back", with_data_length(0x80000000), 1, false, 0, 0},
        {"the longest length", with_data_length(0xffffffff), 1, false, 0, 0},
    };
    for (const auto &one : cases) {
        const list_file file(one.list);
        ima_log log = open_list(file.path());
        std::uint64_t count = one.count;
        EXPECT_EQ(ima_events_skip(log, count), one.skipped) << one.what;
        if (one.skipped) {
            EXPECT_EQ(count, one.had) << one.what;
            EXPECT_EQ(ima_log_position(log), one.position) << one.what;
        }
    }
}

TEST(EventsSkip, ReadsOnFromAnOffset)
{
    const list_file file(GOOD + GOOD);
    ima_log log = open_list(file.path());
    trace_captured.clear();
    EXPECT_TRUE(ima_events_seek(log, GOOD.size(), 1));
    EXPECT_EQ(ima_log_position(log), GOOD.size());
    EXPECT_EQ(trace_captured.size(), 1);
    EXPECT_TRUE(ima_events_seek(log, 3 * GOOD.size(), 3)) << "the list may have been longer before";
    EXPECT_TRUE(trace_has_part("The list ends before")) << testing::PrintToString(trace_captured);
    for (std::uint64_t offset : {std::uint64_t{1} << 63, std::numeric_limits<std::uint64_t>::max()}) {
        trace_captured.clear();
        EXPECT_FALSE(ima_events_seek(log, offset, 2));
        EXPECT_TRUE(trace_has("ima_events_skip(): Seek to " + std::to_string(offset) + " to read 2 failed "))
            << testing::PrintToString(trace_captured);
    }
}

// The kernel's list can go to any place; what stands in its stead perhaps not.
TEST(EventsSkip, GoesNowhereInWhatCanOnlyBeRead)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const unique_fd from(ends[0]);
    {
        const unique_fd into(ends[1]);
        const std::string list = OLD + with_data_length(1'000'000);
        ASSERT_EQ(write(into.get(), list.data(), list.size()), static_cast<ssize_t>(list.size()));
    }
    ima_log log = open_list("/proc/self/fd/" + std::to_string(from.get()));
    EXPECT_FALSE(ima_events_seek(log, 1'000'000, 1));
    std::uint64_t count = 2;
    EXPECT_FALSE(ima_events_skip(log, count));
    EXPECT_EQ(count, 2);
}

} // namespace
