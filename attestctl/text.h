// Bytes that a node sent, made fit to be read: nothing here lets a byte through that could steer a terminal,
// start a new line or pass for something that attestctl says itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// How much of a text is shown, in bytes of the source. A measured file's name is at most 4096 bytes in the
// kernel.
inline constexpr std::size_t MAX_NAME_BYTES = 4096;
inline constexpr std::size_t MAX_TEXT_BYTES = 1024;
inline constexpr std::size_t MAX_HEX_BYTES = 32;

struct code_point {
    char32_t value;
    std::size_t length; // bytes taken, 0: they are no UTF-8
};

// The character that `text` (not empty) begins with; overlong forms, surrogates and values beyond U+10FFFF
// are none.
code_point next_utf8(std::string_view text) noexcept;

void append_utf8(std::string &out, char32_t value);

// Controls (C0, DEL, C1), and characters that reorder, hide or break lines of the text around them.
bool is_unsafe(char32_t value) noexcept;

// Whether a backslash of the source is doubled. Doubled, the result can be read back without doubt; single
// keeps the file names of the firmware, which are full of backslashes, readable; as most are shown in quotes,
// a quote of the source is \x22 there.
enum class backslash { doubled, single };

// UTF-8 text with \xNN for bytes that are none or are ASCII controls and \u{N} for other unsafe characters.
// What is longer than `max_bytes` is cut and says how long it was.
std::string printable(std::string_view bytes, std::size_t max_bytes = MAX_TEXT_BYTES,
                      backslash how = backslash::doubled);

// The same for UTF-16LE, up to a terminating zero or the end; an odd last byte is left out.
std::string printable_utf16(std::string_view bytes, std::size_t max_bytes = MAX_TEXT_BYTES);

// The bytes before the first NUL.
std::string_view before_nul(std::string_view bytes) noexcept;

// Lower case.
std::string hex(std::string_view bytes);

// `hex`, cut after `max_bytes`, with the whole length when it is cut.
std::string hex_preview(std::string_view bytes, std::size_t max_bytes = MAX_HEX_BYTES);

// False, and `bytes` unchanged, unless `text` is an even number of hexadecimal digits.
bool from_hex(std::string_view text, std::string &bytes);

// "1,234,567"
std::string grouped(std::uint64_t number);

// "1 event", "2 events"
std::string counted(std::uint64_t number, std::string_view noun);

// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string format(const char *form, ...);
