#include "attestctl/check.h"

#include <algorithm>

#include "attestctl/text.h"

const char *outcome_text(check_outcome outcome)
{
    switch (outcome) {
    case check_outcome::passed:
        return "pass";
    case check_outcome::failed:
        return "FAIL";
    case check_outcome::not_made:
        break;
    }
    return "not made";
}

bool all_passed(std::span<const check> checks)
{
    return !checks.empty() && std::all_of(checks.begin(), checks.end(),
                                          [](const check &c) { return c.outcome == check_outcome::passed; });
}

std::string verdict_line(std::span<const check> checks)
{
    if (all_passed(checks))
        return "VERIFIED";
    const auto number_of = [checks](check_outcome outcome) {
        return static_cast<std::size_t>(std::count_if(
            checks.begin(), checks.end(), [outcome](const check &c) { return c.outcome == outcome; }));
    };
    const std::size_t not_made = number_of(check_outcome::not_made);
    if (not_made == checks.size())
        return "NOT VERIFIED: no check was made";
    std::string out = "NOT VERIFIED: " + counted(number_of(check_outcome::failed), "check") + " failed";
    if (not_made != 0)
        out += ", " + grouped(not_made) + " not made";
    return out;
}
