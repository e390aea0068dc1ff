// Where the records of a boot event log begin and end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "boot_log/event_log_format.h"
#include "platform/byte_cursor.h"

enum class boot_log_rule {
    // A record whose field at offset 8 is 0 is SHA-1-only, any other crypto-agile. Digests of algorithms
    // outside the table have no bytes.
    record_by_record,
    // The same, with the digest sizes of the log's own list for algorithms outside the table.
    listed_digest_sizes,
    // SHA-1-only records throughout: what a TPM 1.2 platform writes.
    sha1_only
};

struct boot_log_framing {
    boot_log_rule rule = boot_log_rule::record_by_record;
    std::uint32_t record_count = 0; // as find_boot_log_framing counted them
    // The entries of the Spec ID event's list.
    std::span<const std::byte> listed_algorithms = {};
};

// A record with all its parts inside the log, as views into it.
struct boot_record {
    std::size_t position; // of the record in the log
    bool crypto_agile;
    std::uint32_t pcr_index;
    std::uint32_t event_type;
    std::uint32_t digest_count;
    std::span<const std::byte> digests; // crypto-agile: with their identifiers; SHA-1-only: the 20 bytes
    std::span<const std::byte> event_data;
};

struct boot_digest {
    std::uint16_t identifier;
    const boot_digest_algorithm *algorithm; // null: not in the table
    std::span<const std::byte> digest;
};

// The field that ran past the end of the log, and where it began.
struct boot_log_misfit {
    const char *field;
    std::size_t offset;
};

// Takes the next record. False when a field of it does not fit; then `misfit` says which, and `record` and
// the cursor's place mean nothing.
[[nodiscard]] bool next_boot_record(byte_cursor &log, const boot_log_framing &framing, boot_record &record,
                                    boot_log_misfit &misfit);

// Takes the next digest of a crypto-agile record: a cursor over `digests`, with the framing of its log.
[[nodiscard]] bool next_boot_digest(byte_cursor &digests, const boot_log_framing &framing,
                                    boot_digest &digest);

// The first rule, in the order of their declaration, whose records end exactly where the log ends. False when
// there is none; then `misfit` says where the first rule failed.
[[nodiscard]] bool find_boot_log_framing(std::span<const std::byte> log, boot_log_framing &framing,
                                         boot_log_misfit &misfit);
