#include "attestctl/text.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

namespace {

unsigned char byte_at(std::string_view text, std::size_t i)
{
    return static_cast<unsigned char>(text[i]);
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

void append_printable(std::string &out, char32_t value, backslash how)
{
    if (value == '\\' && how == backslash::doubled)
        out += "\\\\";
    else if (value == '"' && how == backslash::single) // most of these texts stand in quotes
        out += "\\x22";
    else if (!is_unsafe(value))
        append_utf8(out, value);
    else if (value < 0x80)
        out += format("\\x%02x", static_cast<unsigned>(value));
    else
        out += format("\\u{%x}", static_cast<unsigned>(value));
}

std::string cut_note(std::size_t length)
{
    return "... (" + counted(length, "byte") + ")";
}

} // namespace

code_point next_utf8(std::string_view text) noexcept
{
    struct form {
        unsigned char mask, mark;
        char32_t least;
    };
    static constexpr std::array<form, 4> FORMS = {
        {{0x80, 0x00, 0}, {0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}}};
    constexpr code_point none{0, 0};

    const unsigned char first = byte_at(text, 0);
    for (std::size_t extra = 0; extra < FORMS.size(); ++extra) {
        if ((first & FORMS[extra].mask) != FORMS[extra].mark)
            continue;
        if (text.size() <= extra)
            return none;
        char32_t value = first & static_cast<unsigned char>(~FORMS[extra].mask);
        for (std::size_t i = 1; i <= extra; ++i) {
            if ((byte_at(text, i) & 0xc0) != 0x80)
                return none;
            value = (value << 6) | (byte_at(text, i) & 0x3fU);
        }
        const bool surrogate = value >= 0xd800 && value <= 0xdfff;
        return value < FORMS[extra].least || value > 0x10ffff || surrogate ? none
                                                                           : code_point{value, extra + 1};
    }
    return none;
}

void append_utf8(std::string &out, char32_t value)
{
    const auto add = [&out](char32_t byte) { out += static_cast<char>(byte); };
    if (value < 0x80)
        return add(value);
    if (value < 0x800) {
        add(0xc0 | (value >> 6));
    } else {
        if (value < 0x10000) {
            add(0xe0 | (value >> 12));
        } else {
            add(0xf0 | (value >> 18));
            add(0x80 | ((value >> 12) & 0x3f));
        }
        add(0x80 | ((value >> 6) & 0x3f));
    }
    add(0x80 | (value & 0x3f));
}

bool is_unsafe(char32_t value) noexcept
{
    struct range {
        char32_t first, last;
    };
    static constexpr auto RANGES = std::to_array<range>({
        {0x00, 0x1f},       // C0 controls
        {0x7f, 0x9f},       // DEL and the C1 controls, of which U+009B alone starts an escape sequence
        {0xad, 0xad},       // soft hyphen
        {0x61c, 0x61c},     // Arabic letter mark
        {0x200b, 0x200f},   // zero-width characters, direction marks
        {0x2028, 0x202e},   // line and paragraph separators, direction embeddings and overrides
        {0x2060, 0x206f},   // invisible operators, direction isolates
        {0xd800, 0xdfff},   // a lone surrogate
        {0xfeff, 0xfeff},   // byte order mark
        {0xfff9, 0xfffb},   // interlinear annotation
        {0xe0000, 0xe0fff}, // tags
    });
    return std::any_of(RANGES.begin(), RANGES.end(),
                       [value](const range &r) { return value >= r.first && value <= r.last; });
}

std::string printable(std::string_view bytes, std::size_t max_bytes, backslash how)
{
    std::string out;
    std::size_t taken = 0;
    while (taken < bytes.size() && taken < max_bytes) {
        const code_point next = next_utf8(bytes.substr(taken));
        if (next.length == 0)
            out += format("\\x%02x", byte_at(bytes, taken));
        else
            append_printable(out, next.value, how);
        taken += std::max<std::size_t>(next.length, 1);
    }
    return taken < bytes.size() ? out + cut_note(bytes.size()) : out;
}

std::string printable_utf16(std::string_view bytes, std::size_t max_bytes)
{
    const std::size_t units = bytes.size() / 2;
    const auto unit = [bytes](std::size_t i) {
        return static_cast<char32_t>(byte_at(bytes, 2 * i) | (byte_at(bytes, 2 * i + 1) << 8));
    };
    std::string out;
    for (std::size_t i = 0; i < units && unit(i) != 0; ++i) {
        if (2 * i >= max_bytes)
            return out + cut_note(bytes.size());
        char32_t value = unit(i);
        const bool high = value >= 0xd800 && value <= 0xdbff;
        if (high && i + 1 < units && unit(i + 1) >= 0xdc00 && unit(i + 1) <= 0xdfff)
            value = 0x10000 + ((value - 0xd800) << 10) + (unit(++i) - 0xdc00);
        append_printable(out, value, backslash::single);
    }
    return out;
}

std::string_view before_nul(std::string_view bytes) noexcept
{
    return bytes.substr(0, bytes.find('\0'));
}

std::string hex(std::string_view bytes)
{
    static constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string out;
    out.reserve(2 * bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += DIGITS[byte >> 4];
        out += DIGITS[byte & 0xf];
    }
    return out;
}

std::string hex_preview(std::string_view bytes, std::size_t max_bytes)
{
    if (bytes.size() <= max_bytes)
        return hex(bytes);
    return hex(bytes.substr(0, max_bytes)) + cut_note(bytes.size());
}

bool from_hex(std::string_view text, std::string &bytes)
{
    if (text.size() % 2 != 0)
        return false;
    std::string out;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hex_digit(text[i]);
        const int low = hex_digit(text[i + 1]);
        if (high < 0 || low < 0)
            return false;
        out += static_cast<char>(high * 16 + low);
    }
    bytes = std::move(out);
    return true;
}

std::string grouped(std::uint64_t number)
{
    std::string out = std::to_string(number);
    for (std::size_t i = out.size(); i > 3; i -= 3)
        out.insert(i - 3, ",");
    return out;
}

std::string counted(std::uint64_t number, std::string_view noun)
{
    return grouped(number) + " " + std::string(noun) + (number == 1 ? "" : "s");
}

std::string format(const char *form, ...)
{
    std::array<char, 256> buffer{};
    va_list arguments;
    va_start(arguments, form);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(buffer.data(), buffer.size(), form, arguments);
    va_end(arguments);
    std::string out;
    if (length >= 0 && static_cast<std::size_t>(length) < buffer.size()) {
        out.assign(buffer.data(), static_cast<std::size_t>(length));
    } else if (length >= 0) {
        out.resize(static_cast<std::size_t>(length));
        std::vsnprintf(out.data(), out.size() + 1, form, again);
    }
    va_end(again);
    return out;
}
