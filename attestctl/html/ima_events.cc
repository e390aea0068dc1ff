#include "attestctl/html/ima_events.h"

#include <algorithm>

#include "attestctl/text.h"

namespace api = remote_attestation_api;

namespace {

// Templates that are told apart; more are "others".
constexpr std::size_t MOST_TEMPLATES = 8;

ima_counts counts_of(const api::IMA_EVENT &event)
{
    return {1, event.duplicate() != 0 ? 1U : 0U, is_violation(event) ? 1U : 0U,
            event.signature().empty() ? 0U : 1U};
}

void add_counts(ima_counts &sum, const ima_counts &more)
{
    sum.events += more.events;
    sum.repeats += more.repeats;
    sum.violations += more.violations;
    sum.signatures += more.signatures;
}

// Without closing tags, which HTML allows, and with names of one letter: there are 100,000 of these.
ima_row make_row(const api::IMA_EVENT &event)
{
    ima_row made{event.event_num(), counts_of(event), {}};
    html &out = made.row;
    const bool violation = made.counts.violations != 0, repeat = made.counts.repeats != 0;
    out << (violation ? markup("<tr class=v>") : repeat ? markup("<tr class=r>") : markup("<tr>"));
    out << "<td>" << std::to_string(event.event_num()) << "<td>"
        << (event.has_event_name() ? printable(event.event_name(), MAX_NAME_BYTES) : "(no name)");
    if (violation)
        out << " <b class=v>violation</b>";
    if (repeat)
        out << " <b class=r>repeat</b>";
    if (made.counts.signatures != 0)
        out << " <b class=s>signed</b>";
    out << "<td>";
    if (event.has_digest())
        out << (event.has_digest_algo() ? printable(event.digest_algo(), 32) + ':' : std::string())
            << hex_preview(event.digest(), 64);
    else
        out << "(no digest)";
    out << "<td>" << hex_preview(event.template_hash(), 64) << "<td>" << std::to_string(event.pcr()) << " "
        << printable(event.template_name(), 64);
    return made;
}

void count_template(shown_ima_list &list, const std::string &name)
{
    auto &known = list.templates;
    if (!known.empty() && known.back().first == name) { // all events of most lists have the same
        ++known.back().second;
        return;
    }
    auto place = std::find_if(known.begin(), known.end(), [&](const auto &one) { return one.first == name; });
    if (place == known.end() && known.size() < MOST_TEMPLATES)
        place = known.insert(place, {name, 0});
    if (place != known.end())
        ++place->second;
}

void add_to_first(shown_ima_list &list, const ima_row &row)
{
    if (list.first.empty() || list.first.back().counts.events == BLOCK_EVENTS)
        list.first.push_back({row.number, row.number, {}, {}});
    ima_block &block = list.first.back();
    block.last = row.number;
    block.rows << row.row;
    add_counts(block.counts, row.counts);
    list.first_bytes += row.row.bytes.size();
    list.first_is_full = list.first_bytes >= FIRST_BYTES || list.counts.events >= FIRST_EVENTS;
}

// A row that is no longer among the last.
void leave_behind(shown_ima_list &list, ima_row row)
{
    const bool kept = row.counts.violations != 0 && list.between.size() < VIOLATIONS_BETWEEN &&
                      list.between_bytes < BETWEEN_BYTES;
    if (!kept) {
        ++list.left_out;
        return;
    }
    list.between_bytes += row.row.bytes.size();
    list.between.push_back(std::move(row));
}

void add_to_last(shown_ima_list &list, ima_row row)
{
    list.last_bytes += row.row.bytes.size();
    list.last.push_back(std::move(row));
    while (list.last.size() > LAST_EVENTS || list.last_bytes > LAST_BYTES) {
        list.last_bytes -= list.last.front().row.bytes.size();
        leave_behind(list, std::move(list.last.front()));
        list.last.pop_front();
    }
}

void take_event(shown_ima_list &list, const api::IMA_EVENT &event)
{
    ima_row row = make_row(event);
    if (list.counts.events == 0)
        list.first_number = row.number;
    list.last_number = row.number;
    add_counts(list.counts, row.counts);
    add_to_growth(list.growth, row.counts);
    count_template(list, event.template_name());
    if (list.first_is_full)
        add_to_last(list, std::move(row));
    else
        add_to_first(list, row);
}

} // namespace

void add_to_growth(ima_growth &growth, const ima_counts &event)
{
    if (growth.steps.size() == MOST_STEPS && growth.steps.back().events == growth.step_events) {
        for (std::size_t i = 0; i < MOST_STEPS / 2; ++i) {
            ima_counts both = growth.steps[2 * i];
            add_counts(both, growth.steps[2 * i + 1]);
            growth.steps[i] = both;
        }
        growth.steps.resize(MOST_STEPS / 2);
        growth.step_events *= 2;
    }
    if (growth.steps.empty() || growth.steps.back().events == growth.step_events)
        growth.steps.push_back({});
    add_counts(growth.steps.back(), event);
}

void take_ima_rows(std::vector<shown_ima_list> &lists, const api::NodeIMAData &message,
                   const ima_start &start)
{
    if (!message.has_node_name())
        return; // the end of a stream that broke off
    auto list = std::find_if(lists.begin(), lists.end(),
                             [&](const shown_ima_list &one) { return one.source == message.node_name(); });
    if (list == lists.end()) {
        if (lists.size() == MOST_SOURCES)
            return;
        list = lists.insert(list, shown_ima_list{message.node_name()});
    }
    if (!message.events().empty() && message.events(0).event_num() == 1 && list->counts.events != 0)
        *list = shown_ima_list{message.node_name()};
    const auto position = start.positions.find(message.node_name());
    const std::uint64_t verified = position != start.positions.end() ? position->second.event : 0;
    for (const api::IMA_EVENT &event : message.events())
        if (event.event_num() > verified)
            take_event(*list, event);
}
