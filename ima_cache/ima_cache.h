// The persistent cache of the kernel's measurement list: whole chunks of 1000 events, in the order of the
// list and without gaps from event 1 on, in hash-chained block files. It is made anew in every boot and
// outlives the agent within one.
//
// All of it is used from the event-loop thread; other processes may look at the metadata. Results are 1 for
// success and -1 for failure unless said otherwise. A metadata lock that cannot be taken is a failure.
#pragma once

#include <cstdint>

#include "platform/messages.h"

inline constexpr std::uint64_t MAX_IMA_EVENTS = 1000; // a chunk

// Starts an empty cache at the first start of a boot, and verifies and repairs the one that is there at every
// later one. 1 when the cache can be used. Called once.
std::int32_t at_ima_cache_init();

// Where the cached part of the kernel's list ends: the offset behind it, and the number of its last event (0:
// nothing is cached).
std::int32_t at_ima_cache_get_last_offset(std::uint64_t *tail_offset, std::uint64_t *last_event);

// Where in the kernel's list to read on for `event`: the first event of the block that holds it and that
// event's offset; for events that are not before the last cached one, the last cached event and the offset
// behind it. For an event before the first cached one the outputs stay as they are, and the result is 1
// nevertheless.
std::int32_t at_ima_cache_find_file_offset(std::uint64_t event, std::uint64_t *event_out,
                                           std::uint64_t *offset_out);

// Appends `count` (MAX_IMA_EVENTS) consecutive events, which lie in the kernel's list from `start_offset` up
// to `end_offset`; they stay the caller's. 1, appended; 0, the cache has them already; -1, not appended: the
// same events may be offered again.
std::int32_t at_ima_cache_add(const IMA_EVENT *events, std::uint64_t count, std::uint64_t start_offset,
                              std::uint64_t end_offset);

// Reading: a cursor of three values that the caller keeps. Start, then next until it gives 0 or -1 or it is
// enough, then done, in every case. A decoded message is the caller's to release, before it is used again.
struct ima_cache_cursor {
    std::uint8_t block;
    std::uint32_t offset; // in the block, of the chunk that was decoded last
    std::int32_t fd;      // behind that chunk; -1 or 0: no block is open
};

// Decodes the chunk that holds `event` (the first one for event 0).
std::int32_t at_ima_cache_read_start(std::uint64_t event, IMACacheBlock *message, std::uint8_t *block,
                                     std::uint32_t *offset, std::int32_t *fd);

// Decodes the next chunk: 1; 0 at the end of the cache.
std::int32_t at_ima_cache_read_next(IMACacheBlock *message, std::uint8_t *block, std::uint32_t *offset,
                                    std::int32_t *fd);

void at_ima_cache_read_done(std::uint8_t *block, std::uint32_t *offset, std::int32_t *fd);
