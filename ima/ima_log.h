// The kernel's measurement list, open for reading: a large buffer in which every item is handed out as a
// view, so that reading a record copies nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/byte_cursor.h"
#include "platform/owners.h"

// Where the kernel publishes the list.
extern const char *ima_log_name;

struct ima_log {
    unique_fd file;
    malloc_ptr<std::byte> buffer;
    std::size_t capacity = 0;
    std::size_t begin = 0;         // the next byte in the buffer
    std::size_t end = 0;           // behind the last byte in the buffer
    std::uint64_t file_offset = 0; // of the buffer's end
};

// Opens `path` at its beginning, in place of what `log` had open. 0, or the platform status of why not
// (ENOMEM's when there is no memory for the buffer), with `log` closed.
std::uint32_t ima_log_open(ima_log &log, const char *path);

// The offset in the file of the next byte.
std::uint64_t ima_log_position(const ima_log &log);

// Goes to an offset; one behind the end of the file is no failure, there is nothing to read there. False when
// the file cannot go there, and then the position is the old one.
bool ima_log_seek(ima_log &log, std::uint64_t offset);

enum class ima_log_read : std::uint8_t {
    whole,
    cut,      // the file ends, or fails, inside the bytes; what there is has been given
    no_memory // the buffer cannot grow to hold them; nothing has been read
};

// ima_log_take when the buffer does not hold the bytes.
ima_log_read ima_log_take_slowly(ima_log &log, std::size_t length, std::span<const std::byte> &bytes);

// The next `length` bytes, as a view that the next call on the log ends. Zero bytes cannot be read: they are
// cut, with nothing given.
inline ima_log_read ima_log_take(ima_log &log, std::size_t length, std::span<const std::byte> &bytes)
{
    if (length == 0 || log.end - log.begin < length)
        return ima_log_take_slowly(log, length, bytes);
    bytes = {log.buffer.get() + log.begin, length};
    log.begin += length;
    return ima_log_read::whole;
}

// The next number of 32 bits. False when the file ends before or inside it.
inline bool ima_log_take_u32(ima_log &log, std::uint32_t &value)
{
    std::span<const std::byte> bytes;
    return ima_log_take(log, sizeof value, bytes) == ima_log_read::whole && byte_cursor(bytes).get_le(value);
}
