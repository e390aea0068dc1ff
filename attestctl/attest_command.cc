#include <array>

#include "attestctl/evidence_files.h"
#include "attestctl/output.h"
#include "attestctl/report.h"
#include "attestctl/state.h"
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

// One object a node: {"target" or "from", "evidence": [...], and what append_json_checks says}.
void append_json_report(std::string &out, const settings &chosen, const evidence &got,
                        std::span<const check> checks, bool roots_pinned)
{
    out += '{';
    if (chosen.from_directory.empty())
        append_json_member(out, "target", chosen.target);
    else
        append_json_member(out, "from", chosen.from_directory);
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

// Asks the node, and saves what it says where the user wants that. False, after a complaint, when there is
// nothing to judge; `complete` when all questions were answered and all was saved.
bool ask_for_evidence(const settings &chosen, client &c, evidence &got, bool &complete)
{
    std::string error;
    evidence_directory_owner directory;
    if (!chosen.save_directory.empty()) {
        directory = make_evidence_directory(chosen.save_directory, error);
        if (!directory) {
            complain(error);
            return false;
        }
    }
    const message_taker take = [&](const api::NodeIMAData &message) {
        take_ima_message(got.ima_lists, message, got.pcrs, got.start);
        if (directory)
            save_ima_message(*directory, message);
        return true;
    };
    const ask_result result = fetch_evidence(c, take, got);
    complete = result.status == ask_status::answered;
    if (!complete)
        complain(result.text);
    if (result.status == ask_status::unreachable || got.arrivals.empty())
        return false;
    if (directory && !save_evidence(*directory, got, error)) {
        complain(error);
        complete = false;
    }
    return true;
}

bool read_evidence(const settings &chosen, evidence &got)
{
    std::string error;
    const auto take = [&got](const api::NodeIMAData &message) {
        take_ima_message(got.ima_lists, message, got.pcrs, got.start);
    };
    if (load_evidence(chosen.from_directory, take, got, error))
        return true;
    complain(error);
    return false;
}

// Remembers the lists of a node that was verified; what is known of any other stays. False, and a complaint.
bool remember(const settings &chosen, const evidence &got, std::span<const check> checks,
              verified_lists &state)
{
    std::string error;
    if (chosen.state_file.empty() || !all_passed(checks))
        return true;
    state.nodes[chosen.target] = lists_to_remember(got);
    if (write_state(state, error))
        return true;
    complain(error);
    return false;
}

} // namespace

int run_attest(const settings &chosen, client &c)
{
    chosen_roots roots;
    if (!read_chosen_roots(chosen, roots))
        return EXIT_USAGE;
    verified_lists state;
    std::string error;
    if (!chosen.state_file.empty() && !read_state(chosen.state_file, state, error)) {
        complain(error);
        return EXIT_USAGE;
    }
    evidence got;
    got.remembered = state.nodes[chosen.target];
    bool complete = true;
    if (!(chosen.from_directory.empty() ? ask_for_evidence(chosen, c, got, complete)
                                        : read_evidence(chosen, got)))
        return EXIT_USAGE;
    static constexpr std::array SUBJECTS = {subject::identity, subject::attestation_key, subject::quote,
                                            subject::boot_log, subject::hardware,        subject::ima_list};
    const std::vector<check> checks = judge(got, SUBJECTS, roots.node, roots.for_bmc());
    std::string out;
    if (chosen.json)
        append_json_report(out, chosen, got, checks, roots.node.pinned());
    else
        append_report(out, got, checks, roots.node.pinned());
    write_data(out);
    if (!remember(chosen, got, checks, state) || !flush_data() || !complete)
        return EXIT_USAGE;
    return all_passed(checks) ? EXIT_DONE : EXIT_NO_EVIDENCE;
}
