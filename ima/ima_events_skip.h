// Going to a place in the kernel's list without making events of what lies before it.
#pragma once

#include <cstdint>

#include "ima/ima_log.h"

// Goes to `offset`, which lies behind event number `event`. False, with a trace line, when the list cannot go
// there.
bool ima_events_seek(ima_log &log, std::uint64_t offset, std::uint64_t event);

// Skips `count` records from the log's position. A list with fewer records is no failure: `count` is then how
// many it has. False when a record cannot be skipped.
bool ima_events_skip(ima_log &log, std::uint64_t &count);
