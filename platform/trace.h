// The debug trace: circular buffers of formatted lines that outlive the process, and flags that switch lines
// on and off while it runs (attest-trace reads and switches both).
//
// A line is written without locks and without allocating: from several threads, and from a signal handler.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

struct trace_buffer;

// A flag as it lies in shared memory. Only the trace facility writes it; `effective` is 1 while the flag and
// all its parents are switched on.
struct trace_flag {
    std::atomic<std::uint32_t> effective;
};

// What a call site's state word holds before its first line.
inline constexpr std::uint32_t TRACE_SITE_INIT = 0xFFFFFFFF;

// Opens (creates, or continues that of an earlier process) the buffer `name` (1 to 64 letters, digits, "_" or
// "-") of `size` bytes, a power of two from 64 KiB to 1 GiB; `options` is 0. Sets *buffer, and leaves it null
// on failure. 0, or a platform status: EINVAL's for other arguments, EBUSY's for a buffer that another live
// process writes.
std::uint32_t trace_buffer_init(trace_buffer **buffer, const char *name, std::uint32_t options,
                                std::size_t size);

// Closes the buffer and clears *buffer; its lines stay readable. Not beside other threads that still write to
// it. EINVAL's status when there is none.
std::uint32_t trace_buffer_close(trace_buffer **buffer);

// Registers the flag `name` (1 to 15 letters, digits, "_" or "-") under `parent` (null: none); the last two
// arguments are 0. A flag starts as ATTEST_TRACE says: a comma-separated list of flag names that are on
// ("all", the default, or "none"); naming a flag switches its parents on too. Sets *flag, and leaves it null
// on failure. 0, or a platform status: EEXIST for a name that is taken, ENOSPC when the table is full.
std::uint32_t trace_flag_init(trace_flag **flag, const char *name, trace_flag *parent, std::uint32_t,
                              std::uint32_t);

// Takes the flag back and clears *flag; flags below it go under its parent. EINVAL's status when there is
// none.
std::uint32_t trace_flag_destroy(trace_flag **flag);

// Whether a line under this flag is wanted: a load and a branch. A flag that could not be registered counts
// as on, for nobody could switch it on.
inline bool trace_flag_enabled(const trace_flag *flag)
{
    return flag == nullptr || flag->effective.load(std::memory_order_relaxed) != 0;
}

// Appends one line, formatted as printf does, if the flag is on and there is a buffer. A text over 4064 bytes
// is cut and ends in " [cut]". *site_state belongs to the call site: TRACE_SITE_INIT at first, then the
// number of lines the site has written, less one. Safe in signal handlers for formats without floating point.
void trace_log(trace_flag *flag, trace_buffer *buffer, std::uint32_t *site_state, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
