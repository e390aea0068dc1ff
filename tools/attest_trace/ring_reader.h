// Reads the trace ring of a process that may be running, or gone: only whole lines, oldest first.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/linux/trace_ring_format.h"
#include "platform/owners.h"

struct trace_entry {
    std::uint64_t time_ns = 0; // since 1970, UTC
    std::uint32_t process = 0;
    std::uint32_t thread = 0;
    std::uint32_t sequence = 0;
    bool cut = false;
    std::string text;
    std::uint32_t lost_before = 0; // lines between the entry before and this one that could not be read
};

enum class ring_read {
    entry,
    end,        // no further line so far
    unfinished, // the next line is reserved but not there: being written, or its writer was killed
};

class ring_reader {
public:
    ring_reader() = default;
    ring_reader(const ring_reader &) = delete;
    ring_reader &operator=(const ring_reader &) = delete;
    ~ring_reader();

    // Maps the ring and goes to its oldest line. An empty text, or why not.
    std::string open(const std::string &path);

    // Reads the next line that starts before position `end`.
    ring_read next(trace_entry &entry, std::uint64_t end = TRACE_POSITION_END);

    // Gives up on an unfinished line: the next call looks for the one after it.
    void skip_unfinished();

    // The position behind the newest line now.
    std::uint64_t head() const;

    // Whether the file at the path is another one by now: this one gets no more lines.
    bool replaced(const std::string &path) const;

private:
    using cell = std::array<std::uint64_t, TRACE_CELL_WORDS>;

    bool read_record(std::uint64_t head, trace_entry &entry);
    const trace_word *cell_at(std::uint64_t position) const;
    cell load_cell(std::uint64_t position) const;
    void account(trace_entry &entry);

    unique_fd fd_;
    void *memory_ = nullptr;
    std::size_t size_ = 0;
    const trace_ring_header *header_ = nullptr;
    const trace_word *words_ = nullptr;
    std::uint64_t data_size_ = 0;
    std::uint64_t position_ = 0;
    bool searching_ = false; // position_ may be inside a record
    bool gap_ = false;       // something was passed over since the last entry
    bool any_ = false;       // there was an entry
    std::uint32_t next_sequence_ = 0;
};
