#include <array>

#include "attestctl/check.h"
#include "attestctl/evidence.h"
#include "attestctl/output.h"
#include "attestctl/text.h"

namespace {

// What is to be judged, in the order in which one builds on the other.
constexpr std::array<const char *, 5> SUBJECTS = {"certificates", "quote", "boot log", "IMA list",
                                                  "hardware"};

std::vector<check> judge()
{
    std::vector<check> checks;
    checks.reserve(SUBJECTS.size());
    for (const char *subject : SUBJECTS)
        checks.push_back({subject, check_outcome::not_made, "this version of attestctl does not check it"});
    return checks;
}

void append_report(std::string &out, const evidence &got, std::span<const check> checks)
{
    out += "Evidence\n";
    for (const arrival &row : got.arrivals)
        out += format("  %-29s %s  ", row.kind.c_str(), row.came ? "came   " : "missing") +
               (row.came ? counted(row.sources, "source") + ": " : "") + row.text + '\n';
    out += "Checks\n";
    for (const check &row : checks)
        out += format("  %-29s %-8s ", row.name.c_str(), outcome_text(row.outcome)) + row.reason + '\n';
    out += verdict_line(checks) + '\n';
}

void append_member(std::string &out, const char *name, std::string_view value, bool last = false)
{
    out += '"' + std::string(name) + "\":";
    append_json_string(out, value);
    out += last ? "}" : ",";
}

// One object a node: {"target", "evidence": [...], "checks": [...], "verdict", "verified"}.
void append_json_report(std::string &out, const std::string &target, const evidence &got,
                        std::span<const check> checks)
{
    out += '{';
    append_member(out, "target", target);
    out += "\"evidence\":[";
    for (const arrival &row : got.arrivals) {
        out += &row == got.arrivals.data() ? "{" : ",{";
        append_member(out, "kind", row.kind);
        out += "\"came\":" + std::string(row.came ? "true" : "false") +
               ",\"sources\":" + std::to_string(row.sources) + ',';
        append_member(out, "text", row.text, true);
    }
    out += "],\"checks\":[";
    for (const check &row : checks) {
        out += &row == checks.data() ? "{" : ",{";
        append_member(out, "name", row.name);
        append_member(out, "outcome", outcome_text(row.outcome));
        append_member(out, "reason", row.reason, true);
    }
    out += "],\"verified\":" + std::string(all_passed(checks) ? "true" : "false") + ',';
    append_member(out, "verdict", verdict_line(checks), true);
    out += '\n';
}

} // namespace

int run_attest(const settings &chosen, client &c)
{
    evidence got;
    const ask_result result = fetch_evidence(
        c, [](const api::NodeIMAData &) { return true; }, got);
    if (result.status != ask_status::answered)
        complain(result.text);
    if (result.status == ask_status::unreachable || got.arrivals.empty())
        return EXIT_USAGE;
    const std::vector<check> checks = judge();
    std::string out;
    if (chosen.json)
        append_json_report(out, chosen.target, got, checks);
    else
        append_report(out, got, checks);
    write_data(out);
    if (!flush_data() || result.status != ask_status::answered)
        return EXIT_USAGE;
    return all_passed(checks) ? EXIT_DONE : EXIT_NO_EVIDENCE;
}
