#include <algorithm>

#include "attestctl/html/sections.h"
#include "attestctl/text.h"
#include "attestctl/verify/hw_integrity.h"
#include "attestctl/verify/quote.h"

namespace {

void append_identifier(html &out, int index, const std::string *recorded, const std::string *now)
{
    out << "<tr><td>" << std::to_string(index) << "<td class=wide>";
    if (recorded != nullptr)
        append_digest(out, *recorded);
    else
        out << "<i>none</i>";
    if (recorded != nullptr && now != nullptr && *recorded == *now) {
        out << "<td><span class=\"o pass\">same</span>";
        return;
    }
    out << "<td class=wide><span class=\"o fail\">"
        << (recorded == nullptr ? markup("added")
            : now == nullptr    ? markup("not reported")
                                : markup("differs"))
        << "</span> ";
    if (now != nullptr)
        append_digest(out, *now);
}

void append_identifiers(html &out, const api::tpm_hw_integrity &record)
{
    const auto &recorded = record.uid_digests_db0();
    const auto &now = record.uid_digests_db1();
    const int rows = std::max(recorded.size(), now.size());
    out << "<table class=pcrs><thead><tr><th>chip<th>recorded<th>shown now</thead><tbody>";
    for (int i = 0; i < std::min(rows, MOST_IDENTIFIERS); ++i)
        append_identifier(out, i, i < recorded.size() ? &recorded[i].digest() : nullptr,
                          i < now.size() ? &now[i].digest() : nullptr);
    out << "</tbody></table>";
    if (rows > MOST_IDENTIFIERS)
        out << "<p class=note>" << static_cast<std::uint64_t>(rows - MOST_IDENTIFIERS)
            << " more are not shown.</p>";
}

void append_binding(html &out, const page_input &input, const page_source &from)
{
    const std::string *value = value_of(from.records.hw_integrity->pcrs(), REFERENCE_PCR);
    const check *binding = find_check(input, from, "hardware binding");
    out << "<p class=binding>PCR 15 ";
    if (value != nullptr)
        append_digest(out, *value);
    else
        out << "<i>no one value</i>";
    if (binding != nullptr) {
        out << " ";
        append_outcome(out, binding->outcome);
        out << " " << binding->reason;
    }
    out << "</p>";
}

} // namespace

void append_hardware(html &out, const page_input &input, const std::vector<page_source> &sources)
{
    open_section(
        out, "hardware", "Hardware",
        "Digests of the identifiers of the board's chips: as recorded when the node was provisioned, and as "
        "the board shows them now.");
    for (const page_source &from : sources) {
        const api::tpm_hw_integrity *record = from.records.hw_integrity;
        open_source(out, from, record != nullptr,
                    record != nullptr ? printable(record->source_name(), 64) : std::string());
        if (record != nullptr) {
            append_quote(out, record->has_quote() ? &record->quote() : nullptr,
                         input.got.hw_integrity_request.nonce());
            append_binding(out, input, from);
            append_identifiers(out, *record);
        } else {
            out << "<p class=note>No report came from this source.</p>";
        }
        close_source(out);
    }
    close_section(out);
}
