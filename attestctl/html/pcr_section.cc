// What a node claims, what its logs give, and what its TPM signed.
#include <array>

#include "attestctl/event_types.h"
#include "attestctl/html/quote_facts.h"
#include "attestctl/html/sections.h"
#include "attestctl/text.h"
#include "attestctl/verify/boot_log.h"
#include "attestctl/verify/hw_integrity.h"
#include "attestctl/verify/quote.h"

namespace {

// One PCR of a bank, as the logs have it.
struct replayed_pcr {
    std::string value; // empty: no log tells
    std::string by;    // "boot log, 12 events"
};

std::array<std::uint64_t, PCR_COUNT> events_of(const api::NodeBootIntegrityLog &log)
{
    std::array<std::uint64_t, PCR_COUNT> counts{};
    for (const api::BOOT_EVENT &event : log.events())
        if (event.event_type() != event_type::NO_ACTION && event.pcr_index() < PCR_COUNT)
            ++counts[event.pcr_index()];
    return counts;
}

std::string text_of(const sha256_digest &digest)
{
    return {reinterpret_cast<const char *>(digest.data()), digest.size()};
}

replayed_pcr replayed_by_ima(const ima_list &list, const ima_pcr &pcr, const std::string *claimed)
{
    const std::uint64_t last = list.next_number - 1;
    if (!pcr.was_equal || claimed == nullptr)
        return {text_of(pcr.native_known ? pcr.native : pcr.padded), "IMA list to event " + grouped(last)};
    const bool grown = list.met_quote && list.met_after != last;
    return {*claimed, "IMA list to event " + grouped(grown ? list.met_after : last) +
                          (grown ? ", " + grouped(last - list.met_after) + " came later" : "")};
}

// PCR 15 is the extension by the recorded digests of the hardware; empty: they did not come in this bank.
replayed_pcr replayed_by_hardware(const api::tpm_hw_integrity *record, const hash_algorithm &bank)
{
    if (record == nullptr || record->uid_digests_db0().empty() ||
        record->uid_digests_db0(0).digest().size() != bank.size)
        return {};
    return {reference_pcr_value(*record, bank),
            "recorded hardware, " +
                counted(static_cast<std::uint64_t>(record->uid_digests_db0_size()), "chip")};
}

// The replay of all PCRs of a bank.
struct bank_replay {
    std::string problem; // of the boot log's; one line, empty: none
    std::array<replayed_pcr, PCR_COUNT> pcrs;
};

bank_replay replay_bank(const page_source &from, const hash_algorithm &bank, const pcr_list *claimed)
{
    bank_replay out;
    pcr_replay boot;
    if (from.records.boot_log != nullptr) {
        boot = replay(*from.records.boot_log, bank);
        out.problem = boot.problem;
        const auto counts = events_of(*from.records.boot_log);
        for (std::uint32_t i = 0; i < PCR_COUNT && boot.problem.empty(); ++i)
            if (boot.extended[i])
                out.pcrs[i] = {boot.values[i], "boot log, " + counted(counts[i], "event")};
            else if (PCRS_OF_THE_LOG[i])
                out.pcrs[i] = {boot.values[i], "boot log, no event"};
    }
    if (&bank == &quoted_bank() && !boot.extended[REFERENCE_PCR])
        out.pcrs[REFERENCE_PCR] = replayed_by_hardware(from.records.hw_integrity, bank);
    if (from.replayed != nullptr && &bank == &quoted_bank())
        for (std::uint32_t i = 0; i < PCR_COUNT; ++i)
            if (from.replayed->pcrs[i].extended && !boot.extended[i])
                out.pcrs[i] = replayed_by_ima(*from.replayed, from.replayed->pcrs[i],
                                              claimed != nullptr ? value_of(*claimed, i) : nullptr);
    return out;
}

void append_replayed(html &out, const replayed_pcr &replayed, const std::string *claimed)
{
    if (replayed.value.empty()) {
        out << "<td class=dim>no log tells";
        return;
    }
    if (claimed == nullptr) {
        out << "<td class=wide>";
        append_digest(out, replayed.value);
        out << " <span class=by>" << replayed.by << "</span>";
        return;
    }
    if (replayed.value == *claimed) {
        out << "<td><span class=\"o pass\">same</span> <span class=by>" << replayed.by << "</span>";
        return;
    }
    out << "<td class=wide><span class=\"o fail\">differs</span> <span class=by>" << replayed.by
        << "</span> ";
    append_digest(out, replayed.value);
}

// What the quote says of a PCR that it is over.
markup quote_word(const page_input &input, const page_source &from)
{
    const check *digest = find_check(input, from, "quote digest");
    const check *signature = find_check(input, from, "quote signature");
    if (digest != nullptr && digest->outcome == check_outcome::failed)
        return "<td><span class=\"o fail\">other values</span>";
    for (const check *row : {digest, signature})
        if (row == nullptr || row->outcome == check_outcome::not_made)
            return "<td><span class=\"o open\">not checked</span>";
    if (signature->outcome != check_outcome::passed)
        return "<td><span class=\"o fail\">not signed</span>";
    return "<td><span class=\"o pass\">signed</span>";
}

void append_quoted_bank(html &out, const page_input &input, const page_source &from)
{
    const pcr_list &claimed = from.records.pcrs->pcrs();
    const std::string *quote = from.records.pcrs->has_quote() ? &from.records.pcrs->quote() : nullptr;
    const quote_facts facts = quote != nullptr ? read_quote(*quote) : quote_facts();
    const bank_replay replayed = replay_bank(from, quoted_bank(), &claimed);
    const markup word = quote_word(input, from);
    append_quote(out, quote, input.got.pcrs_request.nonce());
    if (!replayed.problem.empty())
        out << "<p class=note>The boot log cannot be replayed: " << replayed.problem << "</p>";
    out << "<table class=pcrs><caption>Bank " << std::string_view(quoted_bank().name)
        << "</caption><thead><tr><th>PCR<th>claimed<th>replayed<th>quoted</thead><tbody>";
    for (std::uint32_t i = 0; i < PCR_COUNT; ++i) {
        const std::string *value = value_of(claimed, i);
        out << "<tr><td>" << std::to_string(i) << "<td class=wide>";
        if (value != nullptr)
            append_digest(out, *value);
        else
            out << "<i>no one value</i>";
        append_replayed(out, replayed.pcrs[i], value);
        out << (!facts.pcrs[i] ? markup("<td class=dim>not quoted") : word);
    }
    out << "</tbody></table>";
}

// Banks that are in the boot log and of which nothing was asked.
void append_other_banks(html &out, const page_source &from)
{
    if (from.records.boot_log == nullptr)
        return;
    for (std::uint32_t number = 0; const hash_algorithm *bank = hash_by_number(number); ++number) {
        if (bank == &quoted_bank())
            continue;
        const bank_replay replayed = replay_bank(from, *bank, nullptr);
        if (!replayed.problem.empty())
            continue;
        out << "<details><summary>Bank " << std::string_view(bank->name)
            << ": replayed from the boot log; nodes neither send nor quote it</summary><table "
               "class=pcrs><thead><tr>"
            << "<th>PCR<th>claimed<th>replayed<th>quoted</thead><tbody>";
        for (std::uint32_t i = 0; i < PCR_COUNT; ++i) {
            if (replayed.pcrs[i].value.empty())
                continue;
            out << "<tr><td>" << std::to_string(i) << "<td class=dim>not sent";
            append_replayed(out, replayed.pcrs[i], nullptr);
            out << "<td class=dim>not quoted";
        }
        out << "</tbody></table></details>";
    }
}

} // namespace

void append_pcrs(html &out, const page_input &input, const std::vector<page_source> &sources)
{
    open_section(
        out, "pcrs", "PCRs",
        "What the node claims, what its logs give when they are replayed, and what its TPM signed. The bars "
        "are the bytes of a digest: equal values look equal.");
    for (const page_source &from : sources) {
        open_source(out, from, from.records.pcrs != nullptr);
        if (from.records.pcrs != nullptr)
            append_quoted_bank(out, input, from);
        else
            out << "<p class=note>No PCR values came from this source.</p>";
        append_other_banks(out, from);
        close_source(out);
    }
    close_section(out);
}
