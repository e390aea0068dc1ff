#include "attestctl/verify/ima_list.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "attestctl/text.h"
#include "attestctl/verify/pcr_set.h"
#include "attestctl/verify/quote.h"

namespace api = remote_attestation_api;

namespace {

constexpr std::uint32_t IMA_PCR = 10;
constexpr std::size_t TEMPLATE_HASH_SIZE = 20;

// What is extended for one event.
struct extension {
    sha256_digest native, padded;
    bool native_known = true;
};

extension extension_of(ima_list &list, const api::IMA_EVENT &event)
{
    extension what;
    if (is_violation(event)) {
        ++list.violations;
        what.native.fill(0xff);
        what.padded.fill(0xff);
        return what;
    }
    what.padded.fill(0);
    std::memcpy(what.padded.data(), event.template_hash().data(), TEMPLATE_HASH_SIZE);
    if (!rebuild_template_data(event, list.data)) {
        ++list.not_rebuilt;
        what.native_known = false;
        return what;
    }
    ++list.hashed;
    if (std::memcmp(sha1_of(list.data).data(), what.padded.data(), TEMPLATE_HASH_SIZE) != 0 &&
        list.hash_problem.empty())
        list.hash_problem =
            "event " + grouped(event.event_num()) + ": the template hash is not that of its fields";
    what.native = sha256_of(list.data);
    return what;
}

bool is_value(const sha256_digest &digest, const std::string &value)
{
    return value.size() == digest.size() && std::memcmp(value.data(), digest.data(), digest.size()) == 0;
}

bool counts(const ima_list &list, const ima_pcr &pcr)
{
    return pcr.extended || &pcr == &list.pcrs[IMA_PCR];
}

// Compares with the quote again, after a change of this PCR.
void look_at_quote(ima_list &list, ima_pcr &pcr)
{
    const bool natively = pcr.quoted != nullptr && pcr.native_known && is_value(pcr.native, *pcr.quoted);
    const bool padded = pcr.quoted != nullptr && pcr.padded_known && is_value(pcr.padded, *pcr.quoted);
    const bool equal = natively || padded;
    if (equal)
        pcr.equal_padded = !natively;
    if (counts(list, pcr) && equal != pcr.equal)
        list.unequal = equal ? list.unequal - 1 : list.unequal + 1;
    pcr.equal = equal;
    pcr.was_equal |= equal;
}

void extend(ima_list &list, const api::IMA_EVENT &event)
{
    const extension what = extension_of(list, event);
    ima_pcr &pcr = list.pcrs[event.pcr()];
    if (!counts(list, pcr) && !pcr.equal)
        ++list.unequal; // from now on it counts
    pcr.extended = true;
    if (!what.native_known && pcr.unknown_data == 0)
        pcr.unknown_data = event.event_num();
    pcr.native_known &= what.native_known;
    if (pcr.native_known)
        pcr.native = sha256_of(pcr.native, what.native);
    if (pcr.padded_known)
        pcr.padded = sha256_of(pcr.padded, what.padded);
    look_at_quote(list, pcr);
}

// False: the event was verified before.
bool take_number(ima_list &list, std::uint64_t number)
{
    // What comes before the position is skipped, however far back the node's cache ended.
    const bool begins = !std::exchange(list.begun, true) && number != 0 && number <= list.next_number;
    if (number != list.next_number && !begins && list.number_problem.empty())
        list.number_problem =
            "event " + grouped(number) + " came where event " + grouped(list.next_number) + " belongs";
    list.next_number = number + 1;
    return number > list.begun_after || !list.number_problem.empty();
}

void take_event(ima_list &list, const api::IMA_EVENT &event)
{
    if (!take_number(list, event.event_num()))
        return;
    ++list.events;
    list.duplicates += event.duplicate() != 0 ? 1 : 0;
    if (!event.has_pcr() || event.pcr() >= list.pcrs.size() ||
        event.template_hash().size() != TEMPLATE_HASH_SIZE) {
        if (list.hash_problem.empty())
            list.hash_problem = "event " + grouped(event.event_num()) + " has no PCR or no template hash";
        return;
    }
    extend(list, event);
    if (list.unequal == 0) {
        list.met_quote = true;
        list.met_after = event.event_num();
    }
}

void go_on_from(ima_list &list, const ima_position &position)
{
    list.begun_after = position.event;
    list.next_number = position.event + 1;
    for (const ima_position::pcr &known : position.pcrs) {
        ima_pcr &pcr = list.pcrs[known.index];
        std::memcpy(pcr.native.data(), known.value.data(), pcr.native.size());
        pcr.padded = pcr.native;
        pcr.native_known = !known.padded;
        pcr.padded_known = known.padded;
        pcr.extended = true;
    }
}

void begin_list(ima_list &list, const std::string &source, const api::attest_pcr_response &quotes,
                const ima_start &start)
{
    list.source = source;
    const auto record = std::find_if(quotes.node_data().begin(), quotes.node_data().end(),
                                     [&](const api::NodePCRData &one) { return one.node_name() == source; });
    for (std::uint32_t i = 0; i < list.pcrs.size(); ++i) {
        ima_pcr &pcr = list.pcrs[i];
        pcr.native.fill(pcr_reset_byte(i));
        pcr.padded = pcr.native;
        pcr.quoted = record != quotes.node_data().end() ? value_of(record->pcrs(), i) : nullptr;
    }
    if (const auto position = start.positions.find(source); position != start.positions.end())
        go_on_from(list, position->second);
    if (const auto note = start.notes.find(source); note != start.notes.end())
        list.note = "; taken whole: " + note->second;
    // Only PCRs that events were extended into count, and PCR 10 in any case.
    for (ima_pcr &pcr : list.pcrs) {
        list.unequal += counts(list, pcr) ? 1 : 0;
        look_at_quote(list, pcr);
    }
    list.met_quote = list.unequal == 0;
    list.met_after = list.begun_after;
}

// Events came, and the last of them is one that had been verified before the list was asked for.
bool ends_early(const ima_list &list)
{
    return list.next_number <= list.begun_after;
}

finding check_numbers(const ima_list &list)
{
    if (!list.number_problem.empty())
        return failed(list.number_problem + list.note);
    if (ends_early(list))
        return failed("the list ends after event " + grouped(list.next_number - 1) + ", verified were " +
                      grouped(list.begun_after));
    std::string marks = list.duplicates != 0 ? ", " + counted(list.duplicates, "duplicate") : "";
    marks += list.violations != 0 ? ", " + counted(list.violations, "violation") : "";
    if (list.begun_after != 0)
        return passed(counted(list.events, "new event") + " after number " + grouped(list.begun_after) +
                      ", up to which the list was verified before" + marks);
    return passed(counted(list.events, "event") + ", from 1 on and without gaps" + marks + list.note);
}

finding check_hashes(const ima_list &list)
{
    if (!list.hash_problem.empty())
        return failed(list.hash_problem);
    std::string done = grouped(list.hashed) + " template hashes recomputed from the fields";
    if (list.violations != 0)
        done += "; nothing binds names and digests of " + counted(list.violations, "violation");
    if (list.not_rebuilt != 0) // nothing binds their names and digests to what was extended
        return not_made(done + "; of " + counted(list.not_rebuilt, "event") +
                        " the template's data is not in the answer");
    return passed(done);
}

// What is wrong with one PCR that counts. Empty: it was as quoted after some event.
std::string replay_problem(std::uint32_t index, const ima_pcr &pcr)
{
    if (pcr.quoted == nullptr)
        return format("no quoted value of PCR %u", index);
    if (pcr.was_equal)
        return {};
    std::string problem = format("does not give the quoted value of PCR %u", index);
    if (pcr.unknown_data != 0)
        problem += ": the data of event " + grouped(pcr.unknown_data) +
                   " cannot be rebuilt, and the quote is not of the SHA-1 bank, which would not need it";
    return problem;
}

finding check_replay(const ima_list &list)
{
    pcr_set replayed;
    bool padded = false;
    for (std::uint32_t i = 0; i < list.pcrs.size(); ++i) {
        if (!counts(list, list.pcrs[i]))
            continue;
        if (std::string problem = replay_problem(i, list.pcrs[i]); !problem.empty())
            return failed(std::move(problem));
        replayed.set(i);
        padded |= list.pcrs[i].equal_padded;
    }
    if (!list.met_quote)
        return failed("gives the quoted values of " + pcr_text(replayed) + ", but not after the same event");
    if (list.met_after == 0 && list.events != 0)
        return failed("PCR 10 is as after a reset: no event of the list was extended before the quote");
    const std::uint64_t later =
        list.next_number - 1 > list.met_after ? list.next_number - 1 - list.met_after : 0;
    return passed(std::string("gives the quoted ") + (replayed.count() == 1 ? "value of " : "values of ") +
                  pcr_text(replayed) + " (" + quoted_bank().name + (padded ? ", SHA-1 hashes padded" : "") +
                  ')' + (later != 0 ? "; " + counted(later, "event") + " came after the quote" : ""));
}

} // namespace

bool is_violation(const api::IMA_EVENT &event)
{
    const std::string &hash = event.template_hash();
    return !hash.empty() && std::all_of(hash.begin(), hash.end(), [](char c) { return c == 0; });
}

void take_ima_message(std::vector<ima_list> &lists, const api::NodeIMAData &message,
                      const api::attest_pcr_response &quotes, const ima_start &start)
{
    if (!message.has_node_name())
        return; // the end of a stream that broke off
    auto list = std::find_if(lists.begin(), lists.end(),
                             [&](const ima_list &one) { return one.source == message.node_name(); });
    if (list == lists.end()) {
        if (lists.size() == MOST_SOURCES)
            return;
        list = lists.insert(lists.end(), ima_list());
        begin_list(*list, message.node_name(), quotes, start);
    }
    for (const api::IMA_EVENT &event : message.events())
        take_event(*list, event);
}

bool is_continued(const ima_list &list)
{
    return list.number_problem.empty() && list.hash_problem.empty() && list.met_quote && !ends_early(list);
}

ima_position position_of(const ima_list &list)
{
    ima_position position{list.met_after, {}};
    for (std::uint32_t i = 0; i < list.pcrs.size(); ++i) {
        const ima_pcr &pcr = list.pcrs[i];
        if (pcr.quoted != nullptr && counts(list, pcr))
            position.pcrs.push_back({i, *pcr.quoted, pcr.equal_padded});
    }
    return position;
}

void check_ima_list(check_list &rows, const ima_list &list)
{
    add(rows, "IMA list numbers", check_numbers(list));
    add(rows, "IMA list hashes", check_hashes(list));
    add(rows, "IMA list replay", check_replay(list));
}
