// Checks of evidence as data: whoever judges adds rows, whoever shows them needs to know nothing else.
#pragma once

#include <span>
#include <string>
#include <vector>

enum class check_outcome { passed, failed, not_made };

struct check {
    std::string name;
    check_outcome outcome = check_outcome::not_made;
    std::string reason; // fit for a terminal, one line
};

// "pass", "FAIL" or "not made"
const char *outcome_text(check_outcome outcome);

// True when there was a check and each of them passed: one that could not be made is no pass.
bool all_passed(std::span<const check> checks);

// "VERIFIED", or "NOT VERIFIED" with the number of checks that failed and that were not made.
std::string verdict_line(std::span<const check> checks);
