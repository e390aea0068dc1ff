#include "attestctl/verdict.h"

#include <algorithm>

#include "attestctl/output.h"
#include "attestctl/report.h"

bool read_chosen_roots(const settings &chosen, chosen_roots &roots)
{
    std::string error;
    if ((chosen.root_file.empty() || read_roots(chosen.root_file, roots.node, error)) &&
        (chosen.bmc_root_file.empty() || read_roots(chosen.bmc_root_file, roots.bmc.emplace(), error)))
        return true;
    complain(error);
    return false;
}

int conclude(const settings &chosen, client &c, evidence &got, std::span<const subject> subjects,
             const chosen_roots &roots)
{
    const bool needs_attestation_key =
        std::find(subjects.begin(), subjects.end(), subject::attestation_key) != subjects.end();
    const ask_result result = fetch_signers(c, needs_attestation_key, got);
    for (const arrival &row : got.arrivals) // of the signers; the command's own answer is not among them
        if (!row.answered)
            complain(row.text);
    const std::vector<check> checks = judge(got, subjects, roots.node, roots.for_bmc());
    std::string out;
    if (chosen.json) {
        out += '{';
        append_json_checks(out, checks, roots.node.pinned());
        out += "}\n";
    } else {
        append_checks(out, checks, roots.node.pinned());
    }
    write_data(out);
    if (!flush_data() || result.status != ask_status::answered)
        return EXIT_USAGE;
    return all_passed(checks) ? EXIT_DONE : EXIT_NO_EVIDENCE;
}
