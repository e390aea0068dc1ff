#include "attestctl/attest_many.h"
#include "attestctl/attest_memory.h"
#include "attestctl/attest_report.h"
#include "attestctl/evidence_files.h"
#include "attestctl/html/page_file.h"
#include "attestctl/output.h"
#include "attestctl/text.h"
#include "attestctl/verdict.h"

namespace {

constexpr const char *SAVED_NOTE =
    "Saved evidence: when it was asked for, and with which nonces, is what the directory says.\n";

// Asks the node, and saves what it says where the user wants that. False, after a complaint, when there is
// nothing to judge; `complete` when all questions were answered and all was saved.
bool ask_for_evidence(const settings &chosen, client &c, page_file &page, evidence &got, bool &complete)
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
        take_for_page(page, message, got.start);
        if (directory)
            save_ima_message(*directory, message);
        return true;
    };
    const ask_result result = fetch_evidence(c, take, got);
    complete = result.status == ask_status::answered;
    page.trouble = result.text;
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

bool read_evidence(const settings &chosen, page_file &page, evidence &got)
{
    std::string error;
    const auto take = [&](const api::NodeIMAData &message) {
        take_ima_message(got.ima_lists, message, got.pcrs, got.start);
        take_for_page(page, message, got.start);
    };
    if (load_evidence(chosen.from_directory, take, got, error))
        return true;
    complain(error);
    return false;
}

// Keeps what a verified node leaves for later attestations. False, and a complaint, when that cannot be.
bool leave_memory(const settings &chosen, const evidence &got, std::span<const check> checks,
                  attest_memory &memory)
{
    std::string error;
    const bool known = !memory.keeps_pins || is_pinned(memory, chosen.target);
    const bool pinned = keep(memory, memory_of(chosen.target, got, checks));
    if (all_passed(checks) && !write_memory(memory, error))
        return complain(error), false;
    if (pinned)
        complain("pinned " + chosen.target + " in " + printable(chosen.pin_file));
    else if (!known)
        complain(printable(chosen.pin_file) + " has no pins of " + chosen.target +
                 ", and gets none of a node that does not verify");
    return true;
}

} // namespace

int run_attest(const settings &chosen, client &c)
{
    chosen_roots roots;
    attest_memory memory;
    std::string error;
    if (!read_chosen_roots(chosen, roots))
        return EXIT_USAGE;
    if (!read_memory(chosen, memory, error)) {
        complain(error);
        return EXIT_USAGE;
    }
    if (!chosen.targets_file.empty())
        return attest_many(chosen, roots, memory);
    roots = roots_for(memory, chosen.target, roots);
    page_file page;
    if (!begin_page(chosen, page, error)) {
        complain(error);
        return EXIT_USAGE;
    }
    evidence got;
    got.remembered = recall_lists(memory, chosen.target);
    bool complete = true;
    if (!(chosen.from_directory.empty() ? ask_for_evidence(chosen, c, page, got, complete)
                                        : read_evidence(chosen, page, got)))
        return EXIT_USAGE;
    std::vector<check> checks = judge(got, EVERY_SUBJECT, roots.node, roots.for_bmc());
    check_memory(checks, memory, chosen.target, got);
    std::string out;
    if (chosen.json)
        append_json_report(out, chosen, got, checks, roots.node.vouched_for());
    else {
        if (!chosen.from_directory.empty())
            out += SAVED_NOTE;
        append_report(out, got, checks, roots.node.vouched_for());
    }
    write_data(out);
    if (!write_page(chosen, page, got, checks, roots.node, error)) {
        complain(error);
        complete = false;
    }
    if (!leave_memory(chosen, got, checks, memory) || !flush_data() || !complete)
        return EXIT_USAGE;
    return all_passed(checks) ? EXIT_DONE : EXIT_NO_EVIDENCE;
}
