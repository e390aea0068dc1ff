// The trace ring as it lies in its file "trace-NAME": constants and layout, for the writer (trace.cc) and the
// reader (attest-trace).
//
//   byte 0      trace_ring_header, one page
//   byte 4096   data: `data_size` bytes, a power of two, taken as cells of 32 bytes, written round and round
//
// A position counts the bytes ever reserved, from `data_size` on; position p lies at data byte
// p % data_size. So a position is never 0 and never comes twice, and what an earlier lap left in a place
// never looks like a record of this one. A record is a run of cells that may go on at the start of the data:
//
//   byte 0    position of the record: the commit word, written last                            64 bits
//   byte 8    checksum over the rest of the record                                             32 bits
//   byte 12   sequence number                                                                  32 bits
//   byte 16   time, nanoseconds since 1970 (UTC)                                               64 bits
//   byte 24   process id (24 bits), thread id (24 bits), text length (15 bits), cut (1 bit)    64 bits
//   byte 32   the text, without a NUL, filled up with 0xFF to whole cells
//
// A writer reserves its cells with one atomic addition to `head`, fills them and commits. Nothing is locked,
// so three things can be in the way of a reader, and each shows:
// - a record not committed (its writer is at it, or was killed): its first word is not its position. Its
//   length is unknown; the next record is found by going on cell by cell until one starts with its own
//   position. Text cannot look like that: a position has zero bytes, text has none.
// - a record overwritten since: `head` has gone more than data_size past it.
// - a record torn by a writer that slept for a whole lap between reserving and writing: the checksum fails.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

using trace_word = std::atomic<std::uint64_t>;
static_assert(sizeof(trace_word) == 8 && trace_word::is_always_lock_free, "shared between processes");
static_assert(std::endian::native == std::endian::little, "the targets are little-endian");

inline constexpr char TRACE_RING_FILE_PREFIX[] = "trace-";
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

inline constexpr std::size_t TRACE_CELL_SIZE = 32;
inline constexpr std::size_t TRACE_CELL_WORDS = TRACE_CELL_SIZE / 8;

// Whether a file of `file_size` bytes that begins so is a ring, in a state that a writer can have left.
inline bool trace_ring_recognised(const trace_ring_header &header, std::size_t file_size)
{
    const std::uint64_t head = header.head.load();
    return header.magic == TRACE_RING_MAGIC && header.version == TRACE_RING_VERSION &&
           header.header_size == TRACE_RING_HEADER_SIZE && std::has_single_bit(header.data_size) &&
           header.data_size == file_size - TRACE_RING_HEADER_SIZE && head % TRACE_CELL_SIZE == 0 &&
           head >= header.data_size && head < TRACE_POSITION_END / 2;
}

// The words of a record's first cell.
enum : std::size_t { TRACE_WORD_POSITION, TRACE_WORD_CHECK, TRACE_WORD_TIME, TRACE_WORD_WRITER };

// The word of that name, taken apart. Process ids of Linux have 22 bits.
struct trace_writer {
    std::uint32_t process, thread;
    std::size_t length; // of the text
    bool cut;
};
constexpr std::uint64_t trace_writer_word(const trace_writer &writer)
{
    return (writer.process & 0xFFFFFF) | std::uint64_t{writer.thread & 0xFFFFFF} << 24 |
           std::uint64_t{writer.length} << 48 | std::uint64_t{writer.cut} << 63;
}
constexpr trace_writer trace_writer_of(std::uint64_t word)
{
    return {static_cast<std::uint32_t>(word & 0xFFFFFF), static_cast<std::uint32_t>(word >> 24 & 0xFFFFFF),
            static_cast<std::size_t>(word >> 48 & 0x7FFF), word >> 63 != 0};
}

// The longest record is 4 KiB: a line is a line, and a dump of a large event shows its start.
inline constexpr std::size_t TRACE_TEXT_MAX = 4096 - TRACE_CELL_SIZE;
inline constexpr char TRACE_CUT_MARK[] = " [cut]"; // the end of a text that was longer
static_assert(TRACE_TEXT_MAX % TRACE_CELL_SIZE == 0 && TRACE_TEXT_MAX <= 0x7FFF);

// Cells that a text takes.
constexpr std::size_t trace_text_cells(std::size_t length)
{
    return (length + TRACE_CELL_SIZE - 1) / TRACE_CELL_SIZE;
}

// Fletcher's sums over the text's cells in their order, one for each word of a cell so that they run side by
// side, mixed with the first cell as {position, sequence, time, writer}. They tell lines that got mixed; they
// are no protection against a forger, who could write the file anyway.
struct trace_checksum {
    std::array<std::uint64_t, TRACE_CELL_WORDS> sum{};
    std::array<std::uint64_t, TRACE_CELL_WORDS> sum_of_sums{};

    constexpr void add(const std::array<std::uint64_t, TRACE_CELL_WORDS> &cell)
    {
        for (std::size_t word = 0; word < cell.size(); ++word) {
            sum[word] += cell[word];
            sum_of_sums[word] += sum[word];
        }
    }
    constexpr std::uint32_t value(std::uint64_t position, std::uint64_t sequence, std::uint64_t time,
                                  std::uint64_t writer) const
    {
        std::uint64_t sums = (sum[0] + position) + std::rotl(sum[1] + sequence, 16) +
                             std::rotl(sum[2] + time, 32) + std::rotl(sum[3] + writer, 48);
        std::uint64_t more = sum_of_sums[0] + std::rotl(sum_of_sums[1], 16) + std::rotl(sum_of_sums[2], 32) +
                             std::rotl(sum_of_sums[3], 48);
        return static_cast<std::uint32_t>((sums ^ std::rotl(more, 29)) * 0x9E3779B97F4A7C15 >> 32);
    }
};
