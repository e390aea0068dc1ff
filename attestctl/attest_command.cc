#include <array>

#include "attestctl/output.h"
#include "attestctl/report.h"
#include "attestctl/text.h"
#include "attestctl/verdict.h"

namespace {

void append_report(std::string &out, const evidence &got, std::span<const check> checks, bool roots_pinned)
{
    out += "Evidence\n";
    for (const arrival &row : got.arrivals)
        out += format("  %-29s %s  ", row.kind.c_str(), row.came ? "came   " : "missing") +
               (row.came ? counted(row.sources, "source") + ": " : "") + row.text + '\n';
    append_checks(out, checks, roots_pinned);
}

// One object a node: {"target", "evidence": [...], and what append_json_checks says}.
void append_json_report(std::string &out, const std::string &target, const evidence &got,
                        std::span<const check> checks, bool roots_pinned)
{
    out += '{';
    append_json_member(out, "target", target);
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

} // namespace

int run_attest(const settings &chosen, client &c)
{
    trusted_roots roots;
    if (!read_chosen_roots(chosen, roots))
        return EXIT_USAGE;
    evidence got;
    const ask_result result = fetch_evidence(
        c,
        [&got](const api::NodeIMAData &message) {
            take_ima_message(got.ima_lists, message, got.pcrs);
            return true;
        },
        got);
    if (result.status != ask_status::answered)
        complain(result.text);
    if (result.status == ask_status::unreachable || got.arrivals.empty())
        return EXIT_USAGE;
    static constexpr std::array SUBJECTS = {subject::identity, subject::attestation_key, subject::quote,
                                            subject::boot_log, subject::hardware,        subject::ima_list};
    const std::vector<check> checks = judge(got, SUBJECTS, roots);
    std::string out;
    if (chosen.json)
        append_json_report(out, chosen.target, got, checks, roots.pinned());
    else
        append_report(out, got, checks, roots.pinned());
    write_data(out);
    if (!flush_data() || result.status != ask_status::answered)
        return EXIT_USAGE;
    return all_passed(checks) ? EXIT_DONE : EXIT_NO_EVIDENCE;
}
