// Files that the user names: keys and certificates.
#pragma once

#include <string>

// The whole of a file of at most 1 MiB. False, and `error` has one line, for one that cannot be read or is
// larger.
bool read_small_file(const std::string &path, std::string &content, std::string &error);
