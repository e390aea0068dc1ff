#include "agent/system_messages.h"

#include "agent/metrics.h"

namespace {

constexpr std::uint32_t CODE_BASE = 0x1CA00000;

// The message log's state, one block a record.
constinit std::uint64_t states[5][4] = {{300}, {300}, {300}, {300}, {300}};

constexpr message_record record(std::uint32_t number, const char *mnemonic, std::uint64_t severity,
                                const char *format)
{
    return {.reserved0 = 0,
            .format = format,
            .state = states[number],
            .process = "attestation_agent",
            .facility = "MGBL",
            .mnemonic = mnemonic,
            .severity = severity,
            .reserved1 = 0,
            .code = CODE_BASE + number};
}

} // namespace

constexpr message_record msg_rec_attestation_agent_init = record(4, "INIT", 3, "Initialization failed: %s");
constexpr message_record msg_rec_attestation_agent_ima_disk_lost_block =
    record(3, "IMA_DISK_LOST_BLOCK", 3,
           "IMA disk block is missing. Run time integrity of the system cannot be determined : %s");
constexpr message_record msg_rec_attestation_agent_ima_disk_corrupt_block = record(
    2, "IMA_DISK_CORRUPT_BLOCK", 2,
    "Runtime integrity measurement is corrupt. Run time integrity of the system cannot be determined : %s");
constexpr message_record msg_rec_attestation_agent_ima_disk_cache_full =
    record(1, "IMA_DISK_CACHE_FULL", 2,
           "Not enough space. Consider freeing disk space. Disk Cache block cannot be allocated : %s");
constexpr message_record msg_rec_attestation_agent_event_log_not_found =
    record(0, "EVENT_LOG_NOT_FOUND", 3, "Event log file failed to open: %s");

void raise_system_message(const message_record &record, const char *argument)
{
    count_system_message(record.mnemonic);
    emit_errmsg(&record, static_cast<std::uint32_t>(record.severity), argument);
}
