#include "attestctl/targets.h"

#include <set>
#include <string_view>

#include "attestctl/options.h"
#include "attestctl/small_file.h"
#include "attestctl/text.h"

namespace {

// The line without its comment and the blanks around it.
std::string_view content_of(std::string_view line)
{
    constexpr std::string_view BLANKS = " \t\r";
    line = line.substr(0, line.find('#'));
    const std::size_t first = line.find_first_not_of(BLANKS);
    return first == std::string_view::npos ? std::string_view()
                                           : line.substr(first, line.find_last_not_of(BLANKS) + 1 - first);
}

} // namespace

bool read_targets(const std::string &path, std::vector<std::string> &targets, std::string &error)
{
    std::string text;
    if (!read_small_file(path, text, error))
        return false;
    std::set<std::string_view> seen;
    std::size_t number = 0;
    for (std::string_view left = text; !left.empty();) {
        const std::size_t end = left.find('\n');
        const std::string_view target = content_of(left.substr(0, end));
        left.remove_prefix(end == std::string_view::npos ? left.size() : end + 1);
        ++number;
        if (target.empty())
            continue;
        const bool known = !seen.insert(target).second;
        if (known || !is_target(target)) {
            error = printable(path) + format(":%zu: ", number) +
                    (known ? "names a node again: " : "must be HOST:PORT, not ") + '"' +
                    printable(target, 80) + '"';
            return false;
        }
        targets.emplace_back(target);
    }
    if (targets.empty())
        error = printable(path) + " names no node";
    return error.empty();
}
