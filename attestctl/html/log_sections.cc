// The boot event log and the IMA list.
#include <algorithm>

#include "attestctl/event_data.h"
#include "attestctl/event_types.h"
#include "attestctl/html/pictures.h"
#include "attestctl/html/sections.h"
#include "attestctl/tables.h"
#include "attestctl/text.h"
#include "attestctl/verify/hashes.h"

namespace {

// Boot logs have a few hundred events; their bytes are those of the rows.
constexpr std::uint64_t MOST_BOOT_EVENTS = 20'000;
constexpr std::size_t MOST_BOOT_BYTES = 32 << 20;
constexpr std::size_t MOST_DIGESTS = 16; // of one event; a TPM has fewer banks

// Whether its SHA-256 digest is that of its data.
bool is_digest_of_data(const api::BOOT_EVENT &event)
{
    const std::string of_data = digest_of(quoted_bank(), {event.event_data()});
    return std::any_of(event.digests().begin(), event.digests().end(),
                       [&of_data](const api::BOOT_EVENT_DIGEST &one) {
                           return one.hash_alg() == quoted_bank().number && one.digest() == of_data;
                       });
}

void append_boot_event(html &out, const api::BOOT_EVENT &event)
{
    out << "<tr><td>" << std::to_string(event.event_num()) << "<td>" << std::to_string(event.pcr_index())
        << "<td><b>" << event_type_text(event.event_type()) << "</b>";
    if (event.event_type() == event_type::NO_ACTION)
        out << " <i class=tag>not extended</i>";
    else if (!is_digest_of_data(event))
        out << " <i class=tag>data not proven</i>";
    if (!event.has_event_data())
        out << "<span>(no data)</span>";
    else
        for (const std::string &line : event_data_lines(event.event_type(), event.event_data()))
            out << "<span>" << line << "</span>";
    if (event.has_event_data() && event.event_size() != event.event_data().size())
        out << "<span>(the record says " << counted(event.event_size(), "byte") << ", "
            << event.event_data().size() << " came)</span>";
    out << "<td>";
    std::size_t shown = 0;
    for (const api::BOOT_EVENT_DIGEST &digest : event.digests()) {
        if (shown++ == MOST_DIGESTS) {
            out << "<span>and more</span>";
            break;
        }
        out << "<span><i>" << digest_algorithm_text(digest) << "</i> <code>"
            << (digest.has_digest() ? hex_preview(digest.digest(), 64) : std::string("(no digest)"))
            << "</code></span>";
    }
}

void append_boot_log(html &out, const api::NodeBootIntegrityLog &log)
{
    append_search(out, "search the boot log", false);
    out << "<div class=rows><table class=boot><thead><tr><th>event<th>PCR<th>type and "
           "data<th>digests</thead><tbody>";
    const std::size_t begin = out.bytes.size();
    std::uint64_t shown = 0;
    for (const api::BOOT_EVENT &event : log.events()) {
        if (shown == MOST_BOOT_EVENTS || out.bytes.size() - begin > MOST_BOOT_BYTES)
            break;
        append_boot_event(out, event);
        ++shown;
    }
    out << "</tbody></table></div>";
    if (const auto all = static_cast<std::uint64_t>(log.events_size()); shown < all)
        out << "<p class=cut>Cut: " << all - shown << " of " << counted(all, "event")
            << " are not on this page. The checks are about all of them.</p>";
}

void append_ima_head(html &out)
{
    out << "<table class=ima><thead><tr><th>event<th>file<th>file digest<th>template hash<th>PCR and template"
        << "</thead><tbody>";
}

void append_block(html &out, const ima_block &block, bool open)
{
    out << (open ? markup("<details open>") : markup("<details>")) << "<summary>events <b>" << block.first
        << "</b> to <b>" << block.last << "</b>";
    if (block.counts.repeats != 0)
        out << " <b class=r>" << counted(block.counts.repeats, "repeat") << "</b>";
    if (block.counts.violations != 0)
        out << " <b class=v>" << counted(block.counts.violations, "violation") << "</b>";
    out << "</summary>";
    append_ima_head(out);
    out << block.rows << "</tbody></table></details>";
}

// The rows after the first, in blocks again.
template <typename Rows>
void append_rows(html &out, const Rows &rows)
{
    ima_block block;
    for (const ima_row &row : rows) {
        if (block.counts.events == 0)
            block.first = row.number;
        block.last = row.number;
        ++block.counts.events;
        block.counts.repeats += row.counts.repeats;
        block.counts.violations += row.counts.violations;
        block.rows << row.row;
        if (block.counts.events == BLOCK_EVENTS)
            append_block(out, std::exchange(block, {}), false);
    }
    if (block.counts.events != 0)
        append_block(out, block, false);
}

void append_figures(html &out, const shown_ima_list &list)
{
    const auto figure = [&out](std::uint64_t number, markup what) {
        out << "<div><dd>" << number << "</dd><dt>" << what << "</dt></div>";
    };
    out << "<dl class=figures>";
    figure(list.counts.events, "events");
    figure(list.counts.events - list.counts.repeats, "new");
    figure(list.counts.repeats, "repeats");
    figure(list.counts.violations, "violations");
    figure(list.counts.signatures, "signed");
    out << "</dl><p class=note>Templates: ";
    std::uint64_t others = list.counts.events;
    for (const auto &[name, events] : list.templates) {
        out << printable(name, 64) << " (" << events << ") ";
        others -= events;
    }
    if (others != 0)
        out << "others (" << others << ")";
    out << "</p>";
}

void append_ima_list(html &out, const page_source &from)
{
    const shown_ima_list &list = *from.ima;
    append_figures(out, list);
    if (from.replayed != nullptr && from.replayed->begun_after != 0)
        out << "<p class=note>Up to event " << from.replayed->begun_after
            << " the list was verified earlier; only what is new was asked for.</p>";
    if (from.replayed != nullptr && from.replayed->met_quote &&
        from.replayed->next_number - 1 > from.replayed->met_after)
        out << "<p class=note>Events after " << from.replayed->met_after
            << " came after the quote: nothing vouches for them yet.</p>";
    append_growth_plot(out, list);
    if (list.left_out != 0)
        out << "<p class=cut>Cut: of " << counted(list.counts.events, "event") << " this page has the first "
            << list.counts.events - list.left_out - list.between.size() - list.last.size() << ", the last "
            << list.last.size() << ", and " << counted(list.between.size(), "violation") << " between; "
            << list.left_out << " events are not on it. Checks, figures and plot are about all of them.</p>";
    append_search(out, "search the list", true);
    out << "<div class=rows>";
    for (const ima_block &block : list.first)
        append_block(out, block, &block == list.first.data());
    if (!list.between.empty()) {
        out << "<p class=cut>Violations among the events that were cut:</p>";
        append_rows(out, list.between);
    }
    if (list.left_out != 0)
        out << "<p class=cut>" << list.left_out << " events are not on this page.</p>";
    append_rows(out, list.last);
    out << "</div>";
}

} // namespace

void append_boot_logs(html &out, const std::vector<page_source> &sources)
{
    open_section(
        out, "boot", "Boot log",
        "What firmware and boot loader measured, in order. Every event was extended into its PCR, "
        "but for those that are marked. The replay proves the SHA-256 digests: types, other digests and data "
        "that are not what the digest is of are what the node says.");
    for (const page_source &from : sources) {
        const api::NodeBootIntegrityLog *log = from.records.boot_log;
        open_source(out, from, log != nullptr,
                    log != nullptr ? counted(static_cast<std::uint64_t>(log->events_size()), "event")
                                   : std::string());
        if (log != nullptr)
            append_boot_log(out, *log);
        else
            out << "<p class=note>No boot log came from this source.</p>";
        close_source(out);
    }
    close_section(out);
}

void append_ima_lists(html &out, const std::vector<page_source> &sources)
{
    open_section(out, "ima", "IMA list",
                 "Files that the kernel measured before they were used. A <b class=r>repeat</b> has, by the "
                 "node's word, the name and digest of an earlier event; a <b class=v>violation</b> was "
                 "written to while it was measured.");
    for (const page_source &from : sources) {
        const bool came = from.ima != nullptr && from.ima->counts.events != 0;
        open_source(out, from, came);
        if (came)
            append_ima_list(out, from);
        else
            out << "<p class=note>No event of an IMA list came from this source.</p>";
        close_source(out);
    }
    close_section(out);
}
