// What the program says when it cannot go on.
#pragma once

#include <string>

inline constexpr int EXIT_FAILED = 2;

// "bmc-simulator: " and the text, to stderr; false, for `return fail(...)`.
bool fail(const std::string &text);
// The same with what errno says.
bool fail_with_errno(const std::string &text);
