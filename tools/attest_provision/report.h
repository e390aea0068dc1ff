// What the program says: results to stdout, reasons to stderr.
#pragma once

#include <string>

#include "platform/trust_anchor_client.h"

// "attest-provision: " and the text, to stderr; false, for `return complain(...)`.
bool complain(const std::string &text);
// The same with a status's words, or OpenSSL's last ones.
bool complain_of_status(const std::string &text, kov_status status);
bool complain_of_openssl(const std::string &text);
bool complain_of_errno(const std::string &text, int error);

void say(const char *format, ...) __attribute__((format(printf, 1, 2)));

inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_REFUSED = 1; // what the node is like forbids it, or a check found something
inline constexpr int EXIT_FAILED = 2;  // wrong usage, or it could not be done
