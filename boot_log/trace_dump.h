// Byte ranges as lines of the debug trace. While its flag is off nothing is rendered.
#pragma once

#include <cstdint>

// Non-zero: dumps render the whole range, in memory allocated for the call; without that memory nothing is
// traced. Zero: at most the first 512 (hexadecimal) or 1024 (text) bytes, and a line "[truncated]" when that
// cut.
extern std::int32_t verbose;

// Non-zero: the data of UEFI variables in the boot log is also traced as text.
extern std::int32_t ascii;

// Traces the bytes as upper-case hexadecimal digits without separators.
void print_hexstring(const void *bytes, std::uint32_t length);

// Traces those bytes that are printable or white space (POSIX locale); the others are dropped.
void print_asciistring(const void *bytes, std::uint32_t length);
