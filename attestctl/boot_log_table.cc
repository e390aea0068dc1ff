// The boot event log as a table.
#include <array>

#include "attestctl/event_data.h"
#include "attestctl/event_types.h"
#include "attestctl/tables.h"
#include "attestctl/text.h"

namespace {

void append_event(std::string &out, const api::BOOT_EVENT &event)
{
    out += format("%5u  PCR %2u  ", event.event_num(), event.pcr_index()) +
           event_type_text(event.event_type()) + '\n';
    for (const api::BOOT_EVENT_DIGEST &digest : event.digests())
        out += format("       %-7s ", digest_algorithm_text(digest).c_str()) +
               (digest.has_digest() ? hex_preview(digest.digest(), 64) : "(no digest)") + '\n';
    if (!event.has_event_data()) {
        out += "       (no data)\n";
        return;
    }
    for (const std::string &line : event_data_lines(event.event_type(), event.event_data()))
        out += "       " + line + '\n';
    if (event.event_size() != event.event_data().size())
        out += "       (the record says " + counted(event.event_size(), "byte") + ", " +
               grouped(event.event_data().size()) + " came)\n";
}

} // namespace

std::string digest_algorithm_text(const api::BOOT_EVENT_DIGEST &digest)
{
    struct row {
        std::uint32_t number;
        std::size_t length;
        const char *name;
    };
    static constexpr std::array<row, 4> ROWS = {
        {{0, 20, "sha1"}, {1, 32, "sha256"}, {2, 48, "sha384"}, {3, 64, "sha512"}}};
    for (const row &known : ROWS)
        if (digest.hash_alg() == known.number &&
            (!digest.has_digest() || digest.digest().size() == known.length))
            return known.name;
    return "unknown";
}

void append_table(std::string &out, const api::get_platform_boot_integrity_event_logs_response &answer)
{
    for (const api::NodeBootIntegrityLog &record : answer.node_data()) {
        std::optional<std::uint64_t> uptime;
        if (record.has_uptime())
            uptime = record.uptime();
        out += source_text(record.has_node_name() ? &record.node_name() : nullptr, uptime) + ", " +
               counted(static_cast<std::uint64_t>(record.events_size()), "event") + '\n';
        for (const api::BOOT_EVENT &event : record.events())
            append_event(out, event);
    }
}
