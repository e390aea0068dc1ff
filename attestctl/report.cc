#include "attestctl/report.h"

#include "attestctl/json.h"
#include "attestctl/text.h"

void append_checks(std::string &out, std::span<const check> checks, bool roots_pinned)
{
    out += "Checks\n";
    const std::string *source = nullptr;
    for (const check &row : checks) {
        if (source == nullptr || *source != row.source)
            out += row.source.empty() ? "" : "  node " + row.source + '\n';
        source = &row.source;
        out += format("    %-28s %-8s ", row.name.c_str(), outcome_text(row.outcome)) + row.reason + '\n';
    }
    out += verdict_line(checks, roots_pinned) + '\n';
}

void append_json_checks(std::string &out, std::span<const check> checks, bool roots_pinned)
{
    out += "\"checks\":[";
    for (const check &row : checks) {
        out += &row == checks.data() ? "{" : ",{";
        if (!row.source.empty()) {
            append_json_member(out, "source", row.source);
            out += ',';
        }
        append_json_member(out, "name", row.name);
        out += ',';
        append_json_member(out, "outcome", outcome_text(row.outcome));
        out += ',';
        append_json_member(out, "reason", row.reason);
        out += '}';
    }
    out += "],\"roots_pinned\":" + std::string(roots_pinned ? "true" : "false") +
           ",\"verified\":" + (all_passed(checks) ? "true" : "false") + ',';
    append_json_member(out, "verdict", verdict_line(checks, roots_pinned));
}

void append_json_member(std::string &out, const char *name, std::string_view value)
{
    out += '"' + std::string(name) + "\":";
    append_json_string(out, value);
}
