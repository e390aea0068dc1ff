// The readable dump of a boot event's data in the debug trace.
#pragma once

#include <cstdint>

#include "boot_log/event_log_framing.h"

// The name of a TCG event type in the trace, constant; "Unknown" for the types outside the table.
const char *event_type_name(std::uint32_t type);

// Traces the event data, decoded where the type is known, under the name `operation`. Lengths inside the data
// are the firmware's word only: what they promise beyond the data is left out. Renders nothing while the flag
// is off.
void dump_event_data(const char *operation, const boot_record &record);
