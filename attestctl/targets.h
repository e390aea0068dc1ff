// Files that name nodes.
#pragma once

#include <string>
#include <vector>

// Reads HOST:PORT of each line; empty lines and what stands behind a '#' do not count. False, and `error` has
// one line, for a file that cannot be read or has no node, and for a line that is none or names a node again.
bool read_targets(const std::string &path, std::vector<std::string> &targets, std::string &error);
