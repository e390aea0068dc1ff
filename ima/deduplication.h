// Marks measurements whose file name and digest were measured before in this boot under another event number.
// The pairs are kept in a table in shared memory, with the number of the first event that had each; a
// restarted agent and other processes find them there.
#pragma once

#include <cstdint>

#include "platform/messages.h"

// Opens the table, or sets it up, and puts its handle into at_agent_state. False, with a trace line, when
// that fails; the handle is null then.
bool create_ima_ht();

// 1, the pair belongs to an event with another number; 0, the pair is new, and recorded now, or is this very
// event's; -1, there is no table, the name or the digest is missing, or the pair could not be recorded.
std::int32_t check_and_insert_unique_ima_entry(const char *name, const std::uint8_t *digest,
                                               std::int32_t digest_length, std::uint64_t event_number);

// Sets `duplicate` of an event that has a name and a digest, if the table is open; to 0 where that could not
// be found out. `index_in_chunk` (from 0) is for the trace.
void mark_duplicate(IMA_EVENT *event, std::uint64_t index_in_chunk);
