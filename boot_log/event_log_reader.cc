#include "boot_log/event_log_reader.h"

#include <cstdlib>
#include <cstring>
#include <span>

#include "agent/debug_trace.h"
#include "agent/node_location.h"
#include "boot_log/event_log_dump.h"
#include "boot_log/event_log_framing.h"
#include "boot_log/file_utilities.h"
#include "boot_log/trace_dump.h"
#include "boot_log/uptime.h"
#include "platform/owners.h"

const char *sb_log_name = "/sys/kernel/security/tpm0/binary_bios_measurements";

namespace {

constexpr std::uint32_t EVENT_ARRAY_GROWTH = 200;

// The operation under whose name the parts of the reader trace.
constexpr char READER[] = "attestation_get_local_sb_event_logs";

void set_numbers(const boot_record &record, std::uint32_t event_num, BOOT_EVENT &event)
{
    event.event_num = event_num;
    event.pcr_index = record.pcr_index;
    event.event_type = record.event_type;
    event.present |= BOOT_EVENT::has_event_num | BOOT_EVENT::has_pcr_index | BOOT_EVENT::has_event_type;
}

bool allocate_digests(std::uint32_t count, BOOT_EVENT &event)
{
    auto *digests = static_cast<BOOT_EVENT_DIGEST *>(std::calloc(count, sizeof(BOOT_EVENT_DIGEST)));
    if (digests == nullptr)
        return false;
    event.digests = {digests, count};
    event.present |= BOOT_EVENT::has_digests;
    return true;
}

// Without memory for the bytes the entry stays, without them.
void set_digest(std::uint32_t hash_alg, std::span<const std::byte> digest, BOOT_EVENT_DIGEST &entry)
{
    entry.hash_alg = hash_alg;
    entry.present |= BOOT_EVENT_DIGEST::has_hash_alg;
    if (message_copy_bytes(digest, entry.digest))
        entry.present |= BOOT_EVENT_DIGEST::has_digest;
}

bool set_event_data(const boot_record &record, BOOT_EVENT &event)
{
    if (!message_copy_bytes(record.event_data, event.event_data))
        return false;
    event.event_size = static_cast<std::uint32_t>(record.event_data.size());
    event.present |= BOOT_EVENT::has_event_size | BOOT_EVENT::has_event_data;
    return true;
}

void trace_digest(const boot_digest &digest)
{
    if (digest.algorithm != nullptr)
        attest_trace_as(READER, "  %s", digest.algorithm->name);
    else
        attest_trace_as(READER, "  Unknown (0x%04x)", digest.identifier & 0xFF);
    attest_trace_as(READER, " Dgst: ");
    print_hexstring(digest.digest.data(), static_cast<std::uint32_t>(digest.digest.size()));
}

// The digests of a crypto-agile record. The record has been framed, so each of them is there.
bool populate_digests(const boot_record &record, const boot_log_framing &framing, BOOT_EVENT &event)
{
    if (!allocate_digests(record.digest_count, event)) {
        attest_trace_as(READER, " Unable to allocate digest list ");
        return false;
    }
    byte_cursor digests(record.digests);
    boot_digest digest = {};
    for (BOOT_EVENT_DIGEST &entry : std::span(event.digests.items, event.digests.count)) {
        if (!next_boot_digest(digests, framing, digest))
            return true;
        trace_digest(digest);
        set_digest(digest.algorithm != nullptr ? digest.algorithm->hash_alg : BOOT_HASH_SHA1, digest.digest,
                   entry);
    }
    return true;
}

// Fills the empty `event` from a crypto-agile record. False without memory for its digest list.
bool populate_crypto_agile_event(const boot_record &record, const boot_log_framing &framing,
                                 std::uint32_t event_num, BOOT_EVENT &event)
{
    attest_trace_as(READER, "\nEvent %u\n", event_num);
    attest_trace_as(READER, "\n  Logfile position 0x%08zx\n", record.position);
    set_numbers(record, event_num, event);
    attest_trace_as(READER, "  PCRIndex: %u\n", record.pcr_index);
    attest_trace_as(READER, "  EventType: %02x (%s)\n", record.event_type,
                    event_type_name(record.event_type));
    if (!populate_digests(record, framing, event))
        return false;
    set_event_data(record, event);
    dump_event_data(READER, record);
    attest_trace_as(READER, "  Event Size: %u\n", static_cast<std::uint32_t>(record.event_data.size()));
    return true;
}

// Fills the empty `event` from a SHA-1-only record. False, with `event` empty again, when there is no memory
// for its digest list or its data: the event is dropped then, and the log goes on without it.
bool populate_tpm_12_eventlog(const boot_record &record, std::uint32_t event_num, BOOT_EVENT &event)
{
    scope_exit drop([&event] { message_release(event); });
    attest_trace("\nEvent %u (TPM 1.2 format)\n", event_num);
    set_numbers(record, event_num, event);
    attest_trace("  PCRIndex: %u\n", record.pcr_index);
    attest_trace("  EventType: %02x (%s)\n", record.event_type, event_type_name(record.event_type));
    if (!allocate_digests(1, event)) {
        attest_trace(" Unable to allocate digest list ");
        return false;
    }
    set_digest(BOOT_HASH_SHA1, record.digests, event.digests.items[0]);
    attest_trace("  Dgst: ");
    print_hexstring(record.digests.data(), static_cast<std::uint32_t>(record.digests.size()));
    if (!set_event_data(record, event))
        return false;
    dump_event_data(__func__, record);
    drop.dismiss();
    return true;
}

// Room for all records, in steps of 200. All of it before the first event: grown between the many small
// allocations of the events, the array would be moved at every step.
bool allocate_events(std::uint32_t record_count, NodeBootIntegrityLog &log)
{
    for (std::uint32_t capacity = 0; capacity < record_count;) {
        capacity += EVENT_ARRAY_GROWTH;
        void *items = std::realloc(log.events.items, capacity * sizeof(BOOT_EVENT));
        if (items == nullptr)
            return false;
        log.events.items = static_cast<BOOT_EVENT *>(items);
        log.present |= NodeBootIntegrityLog::has_events;
    }
    return true;
}

// Parses the records into log.events. Whatever is in the message when this fails is for the caller to
// release.
std::uint32_t populate_events(std::span<const std::byte> file, const boot_log_framing &framing,
                              NodeBootIntegrityLog &log)
{
    message_list<BOOT_EVENT> &events = log.events;
    if (!allocate_events(framing.record_count, log)) {
        attest_trace_as(READER, "Failed to allocate event log");
        return ATTEST_ERR_NO_MEMORY;
    }
    byte_cursor records(file);
    boot_record record = {};
    boot_log_misfit misfit = {};
    while (!records.at_end() && next_boot_record(records, framing, record, misfit)) {
        BOOT_EVENT &event = events.items[events.count];
        event = {};
        if (!record.crypto_agile) {
            if (populate_tpm_12_eventlog(record, events.count + 1, event))
                ++events.count;
        } else {
            ++events.count;
            if (!populate_crypto_agile_event(record, framing, events.count, event))
                return ATTEST_ERR_NO_MEMORY;
        }
    }
    return ATTEST_OK;
}

// First the framing alone, so that a log that is cut or garbled leaves no half of itself in message and
// trace.
std::uint32_t parse_event_log(std::span<const std::byte> file, NodeBootIntegrityLog &log)
{
    boot_log_framing framing;
    boot_log_misfit misfit = {};
    if (find_boot_log_framing(file, framing, misfit))
        return populate_events(file, framing, log);
    attest_trace_as(READER, "Boot event log of %zu bytes: the %s at offset 0x%08zx does not fit", file.size(),
                    misfit.field, misfit.offset);
    return ATTEST_ERR_BOOT_LOG_READ;
}

} // namespace

std::uint32_t attestation_get_local_sb_event_logs(NodeBootIntegrityLog *log)
{
    std::byte *buffer = nullptr;
    std::uint64_t size = 0;
    if (read_file(sb_log_name, &buffer, &size) != 0)
        return ATTEST_ERR_BOOT_LOG_READ;
    malloc_ptr<std::byte> file(buffer);

    *log = {};
    owned_message<NodeBootIntegrityLog> filled;
    malloc_ptr<char> node_name = allocate_node_location(__func__);
    if (node_name == nullptr)
        return ATTEST_ERR_NO_MEMORY;
    filled->node_name = node_name.release();
    filled->present |= NodeBootIntegrityLog::has_node_name;
    filled->uptime = at_get_uptime_fm_sys();
    filled->present |= NodeBootIntegrityLog::has_uptime;

    std::uint32_t status = parse_event_log({buffer, size}, *filled);
    if (status == ATTEST_OK)
        *log = filled.hand_over();
    return status;
}
