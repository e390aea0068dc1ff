// The steps of reading below the cursor; the cursor itself is in ima_cache.h.
#pragma once

#include <cstdint>

#include "platform/messages.h"

// Opens the block that holds `event`, with the outputs on the chunk that does: 1; or -1, with no block open.
// The descriptor's position is not there yet.
std::int32_t at_ima_cache_find_block(std::uint64_t event, std::uint8_t *block, std::uint32_t *offset,
                                     std::int32_t *fd);

// Decodes the chunk at `offset`, which must hold the events that its place in the block announces, and leaves
// the descriptor behind it. 1; 0, no chunk is there; -1, with the message empty.
std::int32_t read_events(std::uint32_t offset, std::int32_t fd, IMACacheBlock *message);
