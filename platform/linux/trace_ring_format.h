// The trace ring as it lies in its file "trace-NAME": constants and layout, for the writer (trace.cc) and the
// reader (attest-trace).
//
//   byte 0      trace_ring_header, one page
//   byte 4096   data: `data_size` bytes, a power of two, taken as 64-bit words, written round and round
//
// A position counts the bytes ever reserved, from `data_size` on; position p lies at data byte
// p % data_size. So a position is never 0 and never comes twice, and what an earlier lap left in a place
// never looks like a record of this one. A record starts at a multiple of 8 and may run over the end of the
// data:
//
//   word 0      its own position: the commit word, written last
//   word 1      checksum over word 0, words 2 to 4 and the text's words
//   word 2      time, nanoseconds since 1970 (UTC)
//   word 3      process id | thread id << 32
//   word 4      sequence number | text length in bytes << 32 | flags << 48
//   word 5...   the text, without a NUL; the last word is filled up with 0xFF bytes
//
// A writer reserves its bytes with one atomic addition to `head`, fills them and commits. Nothing is locked,
// so three things can be in the way of a reader, and each shows:
// - a record not committed (its writer is at it, or was killed): word 0 is not its position. Its length is
//   unknown; the next record is found by going on word by word until one holds its own position. Text cannot
//   look like that: a position has zero bytes, text has none.
// - a record overwritten since: `head` has gone more than data_size past it.
// - a record torn by a writer that slept for a whole lap between reserving and writing: the checksum fails.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

using trace_word = std::atomic<std::uint64_t>;
static_assert(sizeof(trace_word) == 8 && trace_word::is_always_lock_free, "shared between processes");
static_assert(std::endian::native == std::endian::little, "the targets are little-endian");

inline constexpr std::uint64_t TRACE_RING_MAGIC = 0x474E495243525441; // "ATRCRING"
inline constexpr std::uint32_t TRACE_RING_VERSION = 1;
inline constexpr std::size_t TRACE_RING_HEADER_SIZE = 4096;

// A ring holds many of the longest records, and its size fits everywhere.
inline constexpr std::size_t TRACE_RING_SIZE_MIN = 0x10000;
inline constexpr std::size_t TRACE_RING_SIZE_MAX = 0x40000000;

// Positions stay below this: their top byte is zero. At 1 GB/s that lasts two years.
inline constexpr std::uint64_t TRACE_POSITION_END = std::uint64_t{1} << 56;

struct trace_ring_header {
    std::uint64_t magic; // written last when the file is made
    std::uint32_t version;
    std::uint32_t header_size;
    std::uint64_t data_size;
    std::uint8_t reserved0[40];
    std::atomic<std::uint64_t> head;     // position of the next record
    std::atomic<std::uint64_t> sequence; // of the next record
    std::atomic<std::uint32_t> writer;   // process id; 0 after an orderly close
    std::uint8_t reserved1[44];
};
static_assert(offsetof(trace_ring_header, data_size) == 16);
static_assert(offsetof(trace_ring_header, head) == 64,
              "the words that every line changes share a cache line");
static_assert(offsetof(trace_ring_header, sequence) == 72);
static_assert(offsetof(trace_ring_header, writer) == 80);
static_assert(sizeof(trace_ring_header) == 128 && sizeof(trace_ring_header) <= TRACE_RING_HEADER_SIZE);

enum : std::size_t {
    TRACE_WORD_POSITION,
    TRACE_WORD_CHECKSUM,
    TRACE_WORD_TIME,
    TRACE_WORD_WRITER,
    TRACE_WORD_LENGTH,
    TRACE_RECORD_HEADER_WORDS
};

inline constexpr std::uint64_t TRACE_RECORD_CUT = std::uint64_t{1} << 48; // in TRACE_WORD_LENGTH

// The longest record is 4 KiB: a line is a line, and a dump of a large event shows its start.
inline constexpr std::size_t TRACE_TEXT_MAX = 4096 - 8 * TRACE_RECORD_HEADER_WORDS;
inline constexpr char TRACE_CUT_MARK[] = " [cut]"; // the end of a text that was longer
static_assert(TRACE_TEXT_MAX % 8 == 0 && TRACE_TEXT_MAX <= 0xFFFF);

// Words of a record with a text of that length.
constexpr std::uint64_t trace_word_count(std::uint64_t text_length)
{
    return TRACE_RECORD_HEADER_WORDS + (text_length + 7) / 8;
}

// Fletcher's sum in 64-bit words, in the order in which add is called. It tells words of two lines that got
// mixed; it is no protection against a forger, who could write the file anyway.
struct trace_checksum {
    std::uint64_t sum = TRACE_RING_MAGIC;
    std::uint64_t sum_of_sums = 0;

    constexpr void add(std::uint64_t word)
    {
        sum += word;
        sum_of_sums += sum;
    }
    constexpr std::uint64_t value() const { return sum ^ std::rotl(sum_of_sums, 32); }
};
