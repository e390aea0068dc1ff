#include "attestctl/html/sections.h"

#include <algorithm>

#include "attestctl/html/pictures.h"
#include "attestctl/html/quote_facts.h"
#include "attestctl/tables.h"
#include "attestctl/text.h"

namespace {

template <typename Record>
void note_uptime(page_source &into, const Record *record)
{
    if (record != nullptr && record->has_uptime() && !into.uptime_s)
        into.uptime_s = record->uptime();
}

bool consists_of(std::string_view bytes, char byte)
{
    return bytes.find_first_not_of(byte) == std::string_view::npos;
}

void append_term(html &out, markup term, const std::string &text)
{
    out << "<div><dt>" << term << "</dt><dd>" << text << "</dd></div>";
}

} // namespace

std::vector<page_source> page_sources(const page_input &input)
{
    std::vector<source> sorted;
    if (!sort_by_source(input.got, sorted))
        sorted.clear(); // more than a node can have: the checks say so
    std::vector<page_source> out;
    for (std::size_t i = 0; i < sorted.size(); ++i) {
        page_source &one = out.emplace_back(page_source{source_name(sorted, i), sorted[i]});
        note_uptime(one, sorted[i].pcrs);
        note_uptime(one, sorted[i].boot_log);
        note_uptime(one, sorted[i].hw_integrity);
    }
    // A list belongs to the first source of its name, or to one that has nothing else.
    for (const shown_ima_list &list : input.ima_lists) {
        auto place = std::find_if(out.begin(), out.end(), [&list](const page_source &one) {
            return one.records.name == list.source;
        });
        if (place == out.end())
            place = out.insert(place, page_source{printable(list.source, 64), source{list.source}});
        place->ima = &list;
        place->replayed = ima_list_of(input.got, place->records);
    }
    return out;
}

void open_section(html &out, markup id, markup title, markup lead)
{
    out << "<section id=" << id << "><h2>" << title << "</h2><p class=lead>" << lead
        << "</p><div class=sources>";
}

void close_section(html &out)
{
    out << "</div></section>\n";
}

void open_source(html &out, const page_source &from, bool came, const std::string &content)
{
    out << (came ? markup("<article>") : markup("<article class=none>")) << "<h3><b>" << from.name << "</b>";
    if (from.uptime_s)
        out << " <span>up " << uptime_text(*from.uptime_s) << "</span>";
    if (!content.empty())
        out << " <span>" << content << "</span>";
    out << "</h3>";
}

void close_source(html &out)
{
    out << "</article>";
}

void append_outcome(html &out, check_outcome outcome)
{
    switch (outcome) {
    case check_outcome::passed:
        out << "<span class=\"o pass\">pass</span>";
        break;
    case check_outcome::failed:
        out << "<span class=\"o fail\">FAIL</span>";
        break;
    case check_outcome::not_made:
        out << "<span class=\"o open\">not made</span>";
        break;
    }
}

const check *find_check(const page_input &input, const page_source &from, std::string_view name)
{
    const auto found = std::find_if(input.checks.begin(), input.checks.end(), [&](const check &row) {
        return row.source == from.name && row.name == name;
    });
    return found == input.checks.end() ? nullptr : &*found;
}

void append_search(html &out, markup label, bool with_marks)
{
    out << "<form class=search hidden><label>" << label
        << " <input type=search autocomplete=off spellcheck=false "
        << "placeholder=\"name, digest, type …\"></label>";
    if (with_marks)
        out << "<label>show <select><option value=\"\">all</option><option value=new>without repeats</option>"
            << "<option value=r>repeats</option><option value=v>violations</option><option "
               "value=s>signed</option>"
            << "</select></label>";
    out << "<output></output></form>";
}

void append_digest(html &out, std::string_view digest)
{
    append_digest_mark(out, digest);
    if (digest.empty())
        out << "<i>nothing</i>";
    else if (consists_of(digest, '\0'))
        out << "<i>zeros</i>";
    else if (consists_of(digest, '\xff'))
        out << "<i>ones</i>";
    else
        out << "<code>" << hex_preview(digest, 64) << "</code>";
}

void append_quote(html &out, const std::string *quote, const std::string &nonce)
{
    const quote_facts facts = quote != nullptr ? read_quote(*quote) : quote_facts();
    if (!facts.readable) {
        out << "<p class=note>"
            << (quote != nullptr ? markup("What came as a quote is none.") : markup("No quote came."))
            << "</p>";
        return;
    }
    out << "<dl class=facts>";
    append_term(out, "quoted", pcr_text(facts.pcrs) + " of " + facts.banks);
    append_term(out, "nonce",
                hex_preview(facts.nonce) +
                    (facts.nonce == nonce ? ", as sent" : ", NOT the one that was sent"));
    append_term(out, "TPM clock", uptime_text(facts.clock_ms / 1000));
    append_term(out, "reset count", grouped(facts.resets));
    append_term(out, "restart count", grouped(facts.restarts));
    append_term(out, "firmware version", format("%016llx", static_cast<unsigned long long>(facts.firmware)));
    out << "</dl><p class=note>The TPM may offset counts and version by a number that belongs to the key: "
           "they compare "
        << "with those of other quotes by the same key.</p>";
}
