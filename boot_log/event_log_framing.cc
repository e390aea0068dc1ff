#include "boot_log/event_log_framing.h"

#include <algorithm>

namespace {

// A TPM has at most 16 banks. The list is searched for every digest outside the table, so its length is not
// left to the log.
constexpr std::size_t MAX_LISTED_ALGORITHMS = 16;

// Gets that note what they were after, so that the field that does not fit has a name.
class field_cursor {
public:
    field_cursor(byte_cursor &log, boot_log_misfit &misfit) : log_(log), misfit_(misfit) {}

    bool get(const char *field, std::uint32_t &value)
    {
        misfit_ = {field, log_.position()};
        return log_.get_le(value);
    }
    bool get(const char *field, std::size_t length, std::span<const std::byte> &bytes)
    {
        misfit_ = {field, log_.position()};
        return log_.get_bytes(length, bytes);
    }

private:
    byte_cursor &log_;
    boot_log_misfit &misfit_;
};

const boot_digest_algorithm *find_algorithm(std::uint16_t identifier)
{
    for (const boot_digest_algorithm &algorithm : boot_digest_algorithms) {
        if (algorithm.identifier == (identifier & 0xFF))
            return &algorithm;
    }
    return nullptr;
}

// The size that the log's own list gives; 0 when the list does not have the algorithm either.
std::size_t listed_digest_size(const boot_log_framing &framing, std::uint16_t identifier)
{
    byte_cursor list(framing.listed_algorithms);
    std::uint16_t listed = 0;
    std::uint16_t size = 0;
    while (list.get_le(listed) && list.get_le(size)) {
        if (listed == identifier)
            return size;
    }
    return 0;
}

bool get_event_data(field_cursor &fields, boot_record &record)
{
    std::uint32_t size = 0;
    return fields.get("event size", size) && fields.get("event data", size, record.event_data);
}

// Counts the records on the way.
bool fits(std::span<const std::byte> log, boot_log_framing &framing, boot_log_misfit &misfit)
{
    byte_cursor records(log);
    boot_record record = {};
    while (!records.at_end()) {
        if (!next_boot_record(records, framing, record, misfit))
            return false;
        ++framing.record_count;
    }
    return true;
}

// The list in the Spec ID event, which is a log's first record; empty without that event. Of a list that
// claims more entries than its event holds, those that are there count.
std::span<const std::byte> find_listed_algorithms(std::span<const std::byte> log)
{
    byte_cursor records(log);
    boot_record first = {};
    boot_log_misfit ignored = {};
    if (!next_boot_record(records, {}, first, ignored) || first.crypto_agile ||
        first.event_type != EV_NO_ACTION || first.pcr_index != 0)
        return {};
    byte_cursor data(first.event_data);
    std::uint32_t count = 0;
    std::span<const std::byte> entries;
    if (!data.skip(SPEC_ID_ALGORITHMS_OFFSET) || !data.get_le(count))
        return {};
    std::size_t present =
        std::min<std::size_t>({count, MAX_LISTED_ALGORITHMS, data.remaining() / SPEC_ID_ALGORITHM_SIZE});
    return data.get_bytes(present * SPEC_ID_ALGORITHM_SIZE, entries) ? entries : std::span<const std::byte>();
}

} // namespace

bool next_boot_digest(byte_cursor &digests, const boot_log_framing &framing, boot_digest &digest)
{
    if (!digests.get_le(digest.identifier))
        return false;
    digest.algorithm = find_algorithm(digest.identifier);
    std::size_t size = digest.algorithm != nullptr ? digest.algorithm->digest_size
                                                   : listed_digest_size(framing, digest.identifier);
    return digests.get_bytes(size, digest.digest);
}

bool next_boot_record(byte_cursor &log, const boot_log_framing &framing, boot_record &record,
                      boot_log_misfit &misfit)
{
    field_cursor fields(log, misfit);
    record = {};
    record.position = log.position();
    if (!fields.get("PCR index", record.pcr_index) || !fields.get("event type", record.event_type))
        return false;

    byte_cursor digest_field = log;
    if (!fields.get("digest count", record.digest_count))
        return false;
    record.crypto_agile = framing.rule != boot_log_rule::sha1_only && record.digest_count != 0;
    if (!record.crypto_agile) {
        log = digest_field;
        record.digest_count = 1;
        return fields.get("SHA-1 digest", SHA1_DIGEST_SIZE, record.digests) && get_event_data(fields, record);
    }

    byte_cursor digests = log;
    boot_digest digest = {};
    for (std::uint32_t i = 0; i < record.digest_count; ++i) {
        misfit = {"digest identifier", digests.position()};
        if (!next_boot_digest(digests, framing, digest)) {
            if (digests.position() != misfit.offset)
                misfit = {"digest", digests.position()};
            return false;
        }
    }
    return fields.get("digests", digests.position() - log.position(), record.digests) &&
           get_event_data(fields, record);
}

bool find_boot_log_framing(std::span<const std::byte> log, boot_log_framing &framing, boot_log_misfit &misfit)
{
    framing = {};
    if (fits(log, framing, misfit))
        return true;
    boot_log_misfit ignored = {};
    framing = {.rule = boot_log_rule::listed_digest_sizes, .listed_algorithms = find_listed_algorithms(log)};
    if (fits(log, framing, ignored))
        return true;
    framing = {.rule = boot_log_rule::sha1_only};
    return fits(log, framing, ignored);
}
