#include "attestctl/report.h"

#include <algorithm>

#include <sys/ioctl.h>
#include <unistd.h>

#include "attestctl/json.h"
#include "attestctl/text.h"

std::size_t output_columns()
{
    winsize size{};
    return isatty(STDOUT_FILENO) == 1 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

namespace {

// Of UTF-8 text in which each character takes one.
std::size_t columns_of(std::string_view text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

} // namespace

void append_folded(std::string &out, std::size_t columns, std::size_t begin, std::string_view text)
{
    constexpr std::size_t LEAST_ROOM = 16; // in less, folding makes nothing more readable
    const bool folds = columns >= begin + LEAST_ROOM;
    std::size_t at = begin;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(' ', 1), text.size()); // a word, and the blank before it
        std::string_view word = text.substr(0, end);
        if (folds && at > begin && at + columns_of(word) > columns) {
            out += '\n' + std::string(begin, ' ');
            at = begin;
            word.remove_prefix(1);
        }
        out += word;
        at += columns_of(word);
        text.remove_prefix(end);
    }
    out += '\n';
}

void append_row(std::string &out, const row_layout &layout, const std::string &name, const char *outcome,
                const std::string &reason)
{
    constexpr std::size_t LEAST_BESIDE = 80; // in fewer columns there is no room for reasons beside names
    const std::size_t columns = output_columns();
    const std::string indent(layout.indent, ' ');
    if (columns == 0 || columns >= LEAST_BESIDE) {
        const std::string head = indent + format("%-*s %-8s ", layout.name_width, name.c_str(), outcome);
        out += head;
        return append_folded(out, columns, head.size(), reason);
    }
    const std::string head = indent + format("%-8s ", outcome);
    out += head + name + '\n' + std::string(head.size(), ' ');
    append_folded(out, columns, head.size(), reason);
}

void append_checks(std::string &out, std::span<const check> checks, bool roots_pinned)
{
    out += "Checks\n";
    const std::string *source = nullptr;
    for (const check &row : checks) {
        if (source == nullptr || *source != row.source)
            out += row.source.empty() ? "" : "  node " + row.source + '\n';
        source = &row.source;
        append_row(out, {4, 28}, row.name, outcome_text(row.outcome), row.reason);
    }
    out += verdict_line(checks, roots_pinned) + '\n';
}

void append_json_checks(std::string &out, std::span<const check> checks, bool roots_pinned)
{
    out += "\"checks\":[";
    for (const check &row : checks) {
        out += &row == checks.data() ? "{" : ",{";
        if (!row.source.empty()) {
            append_json_member(out, "source", row.source);
            out += ',';
        }
        append_json_member(out, "name", row.name);
        out += ',';
        append_json_member(out, "outcome", outcome_text(row.outcome));
        out += ',';
        append_json_member(out, "reason", row.reason);
        out += '}';
    }
    out += "],\"roots_pinned\":" + std::string(roots_pinned ? "true" : "false") +
           ",\"verified\":" + (all_passed(checks) ? "true" : "false") + ',';
    append_json_member(out, "verdict", verdict_line(checks, roots_pinned));
}

void append_json_member(std::string &out, const char *name, std::string_view value)
{
    out += '"' + std::string(name) + "\":";
    append_json_string(out, value);
}
