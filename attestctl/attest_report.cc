#include "attestctl/attest_report.h"

#include "attestctl/report.h"
#include "attestctl/text.h"

void append_report(std::string &out, const evidence &got, std::span<const check> checks, bool roots_pinned)
{
    out += "Evidence\n";
    for (const arrival &row : got.arrivals)
        append_row(out, {2, 29}, row.kind, row.came ? "came" : "missing",
                   (row.came ? counted(row.sources, "source") + ": " : "") + row.text);
    append_checks(out, checks, roots_pinned);
}

void append_json_report(std::string &out, const settings &chosen, const evidence &got,
                        std::span<const check> checks, bool roots_pinned, const std::string &error)
{
    out += '{';
    if (chosen.from_directory.empty())
        append_json_member(out, "target", chosen.target);
    else
        append_json_member(out, "from", chosen.from_directory);
    if (!error.empty()) {
        out += ',';
        append_json_member(out, "error", error);
    }
    out += ",\"evidence\":[";
    for (const arrival &row : got.arrivals) {
        out += &row == got.arrivals.data() ? "{" : ",{";
        append_json_member(out, "kind", row.kind);
        out += ",\"came\":" + std::string(row.came ? "true" : "false") +
               ",\"sources\":" + std::to_string(row.sources) + ',';
        append_json_member(out, "text", row.text);
        out += '}';
    }
    out += "],";
    append_json_checks(out, checks, roots_pinned);
    out += "}\n";
}
