#include "attestctl/check.h"

#include <algorithm>

#include "attestctl/text.h"

finding passed(std::string reason)
{
    return {check_outcome::passed, std::move(reason)};
}

finding failed(std::string reason)
{
    return {check_outcome::failed, std::move(reason)};
}

finding not_made(std::string reason)
{
    return {check_outcome::not_made, std::move(reason)};
}

void add(check_list &list, std::string name, finding what)
{
    list.rows.push_back({std::move(name), what.outcome, std::move(what.reason), list.source});
}

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

std::string verdict_line(std::span<const check> checks, bool roots_pinned)
{
    if (all_passed(checks))
        return roots_pinned ? "VERIFIED" : "VERIFIED, but against roots that are not pinned (see --root)";
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
