#include "ima/ima_events_skip.h"

#include <limits>
#include <string_view>

#include "agent/debug_trace.h"
#include "ima/ima_record_reader.h"

namespace {

// A distance of the list is one of 31 bits: a longer one would lead back, and round and round.
bool skip_bytes(ima_log &log, std::uint32_t distance)
{
    return distance <= static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max()) &&
           ima_log_seek(log, ima_log_position(log) + distance);
}

bool skip_template_data(ima_log &log, std::string_view template_name)
{
    std::uint32_t length = 0;
    if (template_name == IMA_TEMPLATE_IMA && !skip_bytes(log, IMA_DIGEST_SIZE))
        return false;
    return ima_log_take_u32(log, length) && skip_bytes(log, length);
}

} // namespace

bool ima_events_seek(ima_log &log, std::uint64_t offset, std::uint64_t event)
{
    constexpr const char *OPERATION = "ima_events_skip";
    if (!ima_log_seek(log, offset)) {
        attest_trace_as(OPERATION, "Seek to %lu to read %ld failed ", offset, static_cast<long>(event));
        return false;
    }
    attest_trace_as(OPERATION, "Reading from %lu to read %lu ", offset, event);
    // A list has no size to ask for; whether it reaches as far as the cache knows it, its last byte tells.
    std::span<const std::byte> last;
    if (offset != 0 && (!ima_log_seek(log, offset - 1) || ima_log_take(log, 1, last) != ima_log_read::whole))
        attest_trace_as(OPERATION, "The list ends before %lu, where event %lu ended", offset, event);
    return ima_log_seek(log, offset);
}

bool ima_events_skip(ima_log &log, std::uint64_t &count)
{
    for (std::uint64_t i = 0; i < count; ++i) {
        ima_record_head head;
        switch (read_record_head(log, head)) {
        case ima_record_outcome::end_of_log:
            count = i;
            return true;
        case ima_record_outcome::failed:
            return false;
        case ima_record_outcome::read:
            break;
        }
        if (!head.name_read && head.name_length != 0)
            return false;
        if (!skip_template_data(log, head.template_name))
            return false;
    }
    return true;
}
