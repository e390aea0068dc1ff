#include "tools/attest_trace/ring_reader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

ring_reader::~ring_reader()
{
    if (memory_ != nullptr)
        munmap(memory_, size_);
}

std::string ring_reader::open(const std::string &path)
{
    fd_.reset(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat file {};
    if (!fd_ || fstat(fd_.get(), &file) != 0)
        return path + ": " + strerrordesc_np(errno);
    size_ = static_cast<std::size_t>(file.st_size);
    if (!S_ISREG(file.st_mode) || size_ < TRACE_RING_HEADER_SIZE + TRACE_RING_SIZE_MIN)
        return path + ": not a trace buffer";
    void *memory = mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd_.get(), 0);
    if (memory == MAP_FAILED)
        return path + ": " + strerrordesc_np(errno);
    memory_ = memory;
    header_ = static_cast<const trace_ring_header *>(memory);
    if (!trace_ring_recognised(*header_, size_))
        return path + ": not a trace buffer";
    words_ =
        reinterpret_cast<const trace_word *>(static_cast<const std::byte *>(memory) + TRACE_RING_HEADER_SIZE);
    data_size_ = header_->data_size;
    position_ = std::max(head() - data_size_, data_size_);
    searching_ = position_ > data_size_;
    return {};
}

std::uint64_t ring_reader::head() const
{
    return header_->head.load(std::memory_order_acquire);
}

const trace_word *ring_reader::cell_at(std::uint64_t position) const
{
    return &words_[(position / 8) & (data_size_ / 8 - 1)];
}

ring_reader::cell ring_reader::load_cell(std::uint64_t position) const
{
    const trace_word *words = cell_at(position);
    cell copy{};
    for (std::size_t index = 0; index < copy.size(); ++index)
        copy[index] = words[index].load(std::memory_order_relaxed);
    return copy;
}

void ring_reader::skip_unfinished()
{
    searching_ = true;
    gap_ = true;
    position_ += TRACE_CELL_SIZE;
}

ring_read ring_reader::next(trace_entry &entry, std::uint64_t end)
{
    for (;;) {
        std::uint64_t now = head();
        if (position_ >= std::min(now, end))
            return ring_read::end;
        if (now - position_ > data_size_) {
            position_ = now - data_size_;
            searching_ = true;
            gap_ = any_;
        }
        if (read_record(now, entry)) {
            account(entry);
            return ring_read::entry;
        }
        if (!searching_)
            return ring_read::unfinished;
        position_ += TRACE_CELL_SIZE;
    }
}

bool ring_reader::read_record(std::uint64_t head, trace_entry &entry)
{
    if (cell_at(position_)->load(std::memory_order_acquire) != position_)
        return false;
    const cell first = load_cell(position_);
    const trace_writer writer = trace_writer_of(first[TRACE_WORD_WRITER]);
    const std::size_t cells = trace_text_cells(writer.length);
    if (writer.length > TRACE_TEXT_MAX || head - position_ < (1 + cells) * TRACE_CELL_SIZE)
        return false;
    trace_checksum checksum;
    std::array<cell, TRACE_TEXT_MAX / TRACE_CELL_SIZE> text; // NOLINT: what is read of it was filled
    for (std::size_t index = 0; index < cells; ++index) {
        text[index] = load_cell(position_ + (1 + index) * TRACE_CELL_SIZE);
        checksum.add(text[index]);
    }
    const std::uint64_t sequence = first[TRACE_WORD_CHECK] >> 32;
    if (static_cast<std::uint32_t>(first[TRACE_WORD_CHECK]) !=
        checksum.value(position_, sequence, first[TRACE_WORD_TIME], first[TRACE_WORD_WRITER]))
        return false;
    entry.time_ns = first[TRACE_WORD_TIME];
    entry.process = writer.process;
    entry.thread = writer.thread;
    entry.sequence = static_cast<std::uint32_t>(sequence);
    entry.cut = writer.cut;
    entry.text.assign(reinterpret_cast<const char *>(text.data()), writer.length);
    position_ += (1 + cells) * TRACE_CELL_SIZE;
    return true;
}

// Sequence numbers are taken a moment after positions, so neighbours may be swapped: only where something was
// passed over is their distance a number of lost lines.
void ring_reader::account(trace_entry &entry)
{
    auto missing = static_cast<std::int32_t>(entry.sequence - next_sequence_);
    entry.lost_before = gap_ && any_ ? static_cast<std::uint32_t>(std::max(missing, 1)) : 0;
    next_sequence_ = entry.sequence + 1;
    searching_ = false;
    gap_ = false;
    any_ = true;
}

bool ring_reader::replaced(const std::string &path) const
{
    struct stat mapped {
    }, at_path{};
    return fstat(fd_.get(), &mapped) == 0 && stat(path.c_str(), &at_path) == 0 &&
           (mapped.st_ino != at_path.st_ino || mapped.st_dev != at_path.st_dev);
}
