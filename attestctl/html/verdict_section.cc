// The verdict, and the checks that it comes from.
#include <algorithm>
#include <array>

#include "attestctl/html/sections.h"
#include "attestctl/text.h"

namespace {

// What checks are about, by the begin of their names; any other name stands for itself.
std::string_view subject_of(const check &row)
{
    static constexpr std::array<std::string_view, 7> SUBJECTS = {
        "identity", "attestation key", "quote", "boot log", "hardware", "IMA list", "pinned"};
    for (const std::string_view known : SUBJECTS)
        if (row.name.starts_with(known))
            return known;
    return row.name;
}

// Calls `take(begin, end)` for each run of rows that are the same by `key`.
template <typename Key, typename Take>
void for_runs(std::span<const check> rows, Key key, Take take)
{
    for (auto begin = rows.begin(); begin != rows.end();) {
        const auto end =
            std::find_if(begin, rows.end(), [&](const check &row) { return key(row) != key(*begin); });
        take(std::span<const check>(begin, end));
        begin = end;
    }
}

const std::string &source_of(const check &row)
{
    return row.source;
}

std::uint64_t number_of(std::span<const check> checks, check_outcome outcome)
{
    return static_cast<std::uint64_t>(std::count_if(
        checks.begin(), checks.end(), [outcome](const check &row) { return row.outcome == outcome; }));
}

void append_why(html &out, const page_input &input)
{
    const std::uint64_t failed_checks = number_of(input.checks, check_outcome::failed);
    const std::uint64_t not_made_checks = number_of(input.checks, check_outcome::not_made);
    out << "<p class=why>";
    if (!all_passed(input.checks)) {
        out << counted(failed_checks, "check") << " of " << input.checks.size() << " failed";
        if (not_made_checks != 0)
            out << ", " << not_made_checks << " could not be made. What could not be checked is not verified";
        out << ".";
    } else if (input.roots.vouched_for()) {
        out << "All " << input.checks.size() << " checks passed, against "
            << (input.roots.pinned() ? "the roots in " + input.roots.file : "the pinned roots") << ".";
    } else {
        out << "All " << input.checks.size()
            << " checks passed, but the <b>roots are not pinned</b>: nothing but the "
            << "answer itself vouches for them. Name those that you trust with <code>--root</code>.";
    }
    out << "</p>";
    if (!input.trouble.empty())
        out << "<p class=why>The asking ended early: " << input.trouble << "</p>";
}

void append_failures(html &out, const page_input &input)
{
    constexpr std::size_t MOST_LISTED = 10;
    std::size_t shown = 0;
    for (std::size_t i = 0; i < input.checks.size(); ++i) {
        const check &row = input.checks[i];
        if (row.outcome == check_outcome::passed || ++shown > MOST_LISTED)
            continue;
        out << (shown == 1 ? markup("<ul class=failures>") : markup("")) << "<li>";
        append_outcome(out, row.outcome);
        out << "<a href=\"#c" << std::to_string(i) << "\">" << row.name << "</a><span>" << row.reason
            << " <i>" << row.source << "</i></span></li>";
    }
    if (shown > MOST_LISTED)
        out << "<li class=more>and " << shown - MOST_LISTED << " more, <a href=\"#checks\">below</a></li>";
    out << (shown != 0 ? markup("</ul>") : markup(""));
}

// A square a check: the whole attestation at a glance.
void append_tally(html &out, std::span<const check> checks)
{
    out << "<div class=tally>";
    std::size_t i = 0;
    for_runs(checks, source_of, [&](std::span<const check> rows) {
        out << "<div><b>" << rows.front().source << "</b>";
        for_runs(rows, subject_of, [&](std::span<const check> about) {
            out << "<span>" << subject_of(about.front()) << "<span class=squares>";
            for (const check &row : about) {
                const std::string outcome = outcome_text(row.outcome);
                out << (row.outcome == check_outcome::passed   ? markup("<a class=pass href=\"#c")
                        : row.outcome == check_outcome::failed ? markup("<a class=fail href=\"#c")
                                                               : markup("<a class=open href=\"#c"))
                    << std::to_string(i++) << "\" title=\"" << row.name << ": " << outcome
                    << "\" aria-label=\"" << row.name << ": " << outcome << "\"></a>";
            }
            out << "</span></span>";
        });
        out << "</div>";
    });
    out << "</div>";
}

std::string time_text(std::time_t time)
{
    std::tm parts{};
    std::array<char, 64> text{};
    if (gmtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
        return "at an unknown time";
    return text.data();
}

} // namespace

void append_verdict(html &out, const page_input &input)
{
    const bool verified = all_passed(input.checks);
    out << "<header class=band><div class=wrap><p class=kicker><span>Attestation of <b>" << input.target
        << "</b></span> <time>" << time_text(input.asked_at) << "</time></p><h1>"
        << (verified ? markup("VERIFIED") : markup("NOT VERIFIED")) << "</h1>";
    append_why(out, input);
    append_tally(out, input.checks);
    append_failures(out, input);
    out << "</div></header>\n";
}

void append_evidence(html &out, const page_input &input)
{
    out << "<section id=evidence><h2>Evidence</h2><p class=lead>"
        << (input.is_saved
                ? markup("Saved: when it was asked for, and with which nonces, is what the directory says.")
                : markup("What was asked for, in this order and with fresh nonces, and what came."))
        << "</p><table class=evidence><thead><tr><th>asked "
           "for<th>came<th>what</thead><tbody>";
    for (const arrival &row : input.got.arrivals)
        out << "<tr><td>" << row.kind << "<td>"
            << (row.came ? markup("<span class=\"o pass\">came</span>")
                         : markup("<span class=\"o fail\">missing</span>"))
            << "<td>" << row.text;
    out << "</tbody></table></section>\n";
}

void append_check_tables(html &out, const page_input &input)
{
    open_section(
        out, "checks", "Checks",
        "Each with its reason. Verified means that every one of them passed; a check that could not be made "
        "is no pass.");
    std::size_t i = 0;
    for_runs(input.checks, source_of, [&](std::span<const check> rows) {
        out << "<article><h3><b>" << (rows.front().source.empty() ? "all sources" : rows.front().source)
            << "</b> <span>" << number_of(rows, check_outcome::passed) << " of " << rows.size()
            << " passed</span></h3><table class=checks><thead><tr><th>outcome<th>check<th>reason</thead>";
        for_runs(rows, subject_of, [&](std::span<const check> about) {
            out << "<tbody>";
            for (const check &row : about) {
                out << "<tr id=c" << std::to_string(i++) << "><td>";
                append_outcome(out, row.outcome);
                out << "<td>" << row.name << "<td>" << row.reason;
            }
            out << "</tbody>";
        });
        out << "</table>";
        close_source(out);
    });
    close_section(out);
}
