// HTML that is being written. Markup can only be a literal of the sources; everything else that goes in is
// text and is escaped, so that nothing a node sent can become markup.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

struct html {
    std::string bytes;
};

struct markup {
    consteval markup(const char *literal) : text(literal) {}
    std::string_view text;
};

template <typename T>
concept plain_text = std::same_as<T, std::string> || std::same_as<T, std::string_view>;

// Escaped for an element's content and for an attribute's value in double quotes. UTF-8 without controls is
// expected: what a node sent goes through `printable` first.
void append_escaped(html &out, std::string_view text);

inline html &operator<<(html &out, markup literal)
{
    out.bytes += literal.text;
    return out;
}

template <plain_text T>
html &operator<<(html &out, const T &text)
{
    append_escaped(out, text);
    return out;
}

inline html &operator<<(html &out, const html &finished)
{
    out.bytes += finished.bytes;
    return out;
}

// Grouped: "1,234,567". A character is no number.
void append_number(html &out, std::uint64_t number);

template <std::same_as<std::uint64_t> T>
html &operator<<(html &out, T number)
{
    append_number(out, number);
    return out;
}
