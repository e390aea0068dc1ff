#include "platform/rpc/allow_list.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <strings.h>
#include <utility>

#include "platform/rpc/methods.h"
#include "platform/status.h"

namespace {

constexpr std::string_view EVERYBODY = "*";
// The one that tells most comes first.
constexpr std::array<std::string_view, 6> KINDS = {"uri", "dns", "email", "ip", "subject", "cn"};
constexpr std::size_t LONGEST_CALLER_TEXT = 200;

std::string quoted(std::string_view word)
{
    return '"' + std::string(word.substr(0, LONGEST_CALLER_TEXT)) + '"';
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

std::string_view without_blanks(std::string_view text)
{
    while (!text.empty() && is_blank(text.front()))
        text.remove_prefix(1);
    return text;
}

// Takes the line's first word, which may stand between quotation marks, off the line.
bool take_identity(std::string_view *line, std::string_view *word)
{
    const bool in_marks = line->front() == '"';
    if (in_marks)
        line->remove_prefix(1);
    const auto *end = in_marks ? std::find(line->begin(), line->end(), '"')
                               : std::find_if(line->begin(), line->end(), is_blank);
    if (in_marks && end == line->end())
        return false;
    *word = line->substr(0, static_cast<std::size_t>(end - line->begin()));
    line->remove_prefix(word->size() + (in_marks ? 1 : 0));
    return true;
}

// False with *why for what cannot be an identity.
bool read_identity(std::string_view word, rpc_identity *who, std::string *why)
{
    if (word == EVERYBODY) {
        *who = {std::string(EVERYBODY), {}};
        return true;
    }
    const std::size_t colon = word.find(':');
    const std::string_view kind = word.substr(0, colon);
    const bool known = std::find(KINDS.begin(), KINDS.end(), kind) != KINDS.end();
    if (colon == std::string_view::npos || !known || colon + 1 == word.size()) {
        *why = quoted(word) +
               " is no identity: one is *, or begins with uri:, dns:, email:, ip:, subject: or cn:";
        return false;
    }
    *who = {std::string(kind), std::string(word.substr(colon + 1))};
    return true;
}

bool read_operations(std::string_view words, std::uint32_t *methods, std::string *why)
{
    const auto separates = [](char c) { return is_blank(c) || c == ','; };
    while (!words.empty()) {
        const auto *end = std::find_if(words.begin(), words.end(), separates);
        const std::string_view word = words.substr(0, static_cast<std::size_t>(end - words.begin()));
        words.remove_prefix(word.size() + (end == words.end() ? 0 : 1));
        if (word.empty())
            continue;
        const std::uint32_t bits = word == EVERYBODY ? rpc_method_all_bits() : rpc_method_bits_of(word);
        if (bits == 0) {
            *why = quoted(word) + " is no operation";
            return false;
        }
        *methods |= bits;
    }
    if (*methods == 0)
        *why = "no operation is named";
    return *methods != 0;
}

bool read_line(std::string_view line, rpc_allow_list *list, std::string *why)
{
    const auto unprintable = [](char c) {
        return std::iscntrl(static_cast<unsigned char>(c)) != 0 && !is_blank(c);
    };
    if (std::any_of(line.begin(), line.end(), unprintable)) {
        *why = "control characters in it";
        return false;
    }
    line = without_blanks(line);
    if (line.empty() || line.front() == '#')
        return true;
    std::string_view word;
    rpc_allow_entry entry{};
    if (!take_identity(&line, &word)) {
        *why = "a quotation mark is missing";
        return false;
    }
    // A "#" inside an identity is part of it: URIs have them.
    line = line.substr(0, line.find('#'));
    if (!read_identity(word, &entry.who, why) || !read_operations(line, &entry.methods, why))
        return false;
    list->entries.push_back(std::move(entry));
    return true;
}

bool is_named(const rpc_identity &entry, const rpc_identity &own)
{
    if (entry.kind != own.kind)
        return false;
    // Host names are the same in every case; neither has a NUL inside that would end the comparison early.
    if (entry.kind == "dns")
        return entry.value.size() == own.value.size() &&
               strncasecmp(entry.value.data(), own.value.data(), entry.value.size()) == 0 &&
               own.value.find('\0') == std::string::npos;
    return entry.value == own.value;
}

} // namespace

std::uint32_t rpc_allow_list_parse(std::string_view text, rpc_allow_list *list, std::string *why)
{
    rpc_allow_list read;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        std::string reason;
        if (!read_line(line, &read, &reason)) {
            *why = "line " + std::to_string(number) + ": " + reason;
            return platform_status_from_errno(EBADMSG);
        }
    }
    if (read.entries.empty()) {
        *why = "nobody is named in it";
        return platform_status_from_errno(EBADMSG);
    }
    *list = std::move(read);
    return 0;
}

bool rpc_allow_list_permits(const rpc_allow_list &list, const rpc_caller &caller, const rpc_method &method)
{
    const std::uint32_t bit = rpc_method_bit(method);
    return std::any_of(list.entries.begin(), list.entries.end(), [&](const rpc_allow_entry &entry) {
        if ((entry.methods & bit) == 0)
            return false;
        return entry.who.kind == EVERYBODY ||
               std::any_of(caller.begin(), caller.end(),
                           [&](const rpc_identity &own) { return is_named(entry.who, own); });
    });
}

std::string rpc_caller_text(const rpc_caller &caller)
{
    for (const std::string_view kind : KINDS) {
        const auto found = std::find_if(caller.begin(), caller.end(),
                                        [kind](const rpc_identity &own) { return own.kind == kind; });
        if (found == caller.end())
            continue;
        std::string text = (found->kind + ':' + found->value).substr(0, LONGEST_CALLER_TEXT);
        for (char &c : text)
            c = std::iscntrl(static_cast<unsigned char>(c)) != 0 ? '?' : c;
        return text;
    }
    return "a client without a name";
}
