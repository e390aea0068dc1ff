// The five system messages that the agent raises with emit_errmsg; everything else goes to the debug trace.
// Severities and codes are part of the operators' contract and never change.
#pragma once

#include "platform/message_log.h"

extern const message_record msg_rec_attestation_agent_init;
extern const message_record msg_rec_attestation_agent_ima_disk_lost_block;
extern const message_record msg_rec_attestation_agent_ima_disk_corrupt_block;
extern const message_record msg_rec_attestation_agent_ima_disk_cache_full;
extern const message_record msg_rec_attestation_agent_event_log_not_found;

// Raises a message with the record's own severity.
void raise_system_message(const message_record &record, const char *argument);
