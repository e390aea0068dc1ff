// The local half of the boot-integrity operation: the node's measured-boot event log as one message, with a
// readable dump of every record in the debug trace.
#pragma once

#include <cstdint>

#include "agent/status.h"
#include "platform/messages.h"

// The log's path. Nothing in the agent changes it.
extern const char *sb_log_name;

// Reads and parses the log anew and fills *log, whose former content is overwritten, not released. On the
// event-loop thread only.
//
// ATTEST_OK: the caller owns *log and releases it. An empty file gives node name and uptime without events.
// ATTEST_ERR_BOOT_LOG_READ: the file cannot be read (*log untouched), or its bytes are not a whole number of
// records (*log empty; a trace line says what does not fit where).
// ATTEST_ERR_NO_MEMORY: out of memory for what the message cannot do without, or no node name; *log is empty.
// Where only a digest or the data of an event cannot be kept for lack of memory, the log comes without them.
std::uint32_t attestation_get_local_sb_event_logs(NodeBootIntegrityLog *log);
