// Checks of evidence as data: whoever judges adds rows, whoever shows them needs to know nothing else.
#pragma once

#include <span>
#include <string>
#include <vector>

enum class check_outcome { passed, failed, not_made };

// What came of a check.
struct finding {
    check_outcome outcome = check_outcome::not_made;
    std::string reason; // fit for a terminal, one line
};
finding passed(std::string reason);
finding failed(std::string reason);
finding not_made(std::string reason);

struct check {
    std::string name;
    check_outcome outcome = check_outcome::not_made;
    std::string reason;
    std::string source; // the node or part of it that sent the evidence; empty where it is about all of them
};

// The rows of one source.
struct check_list {
    std::string source; // fit for a terminal
    std::vector<check> rows;
};
void add(check_list &list, std::string name, finding what);

// "pass", "FAIL" or "not made"
const char *outcome_text(check_outcome outcome);

// True when there was a check and each of them passed: one that could not be made is no pass.
bool all_passed(std::span<const check> checks);

// "VERIFIED", with a word about roots that are not pinned, or "NOT VERIFIED" with the number of checks that
// failed and that were not made.
std::string verdict_line(std::span<const check> checks, bool roots_pinned);
