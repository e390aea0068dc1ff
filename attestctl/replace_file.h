// Files that a command leaves behind: whole, or as they were.
#pragma once

#include <string>
#include <string_view>

// Puts a file with this content, on the disk, in the place of the one at `path`: whoever reads it, and a
// crash, find the old one or the new one. An old one keeps its permissions, a new one is as the umask wants
// it; a symbolic link stays, and what it points to is replaced. False, and `error` has one line, when that
// cannot be: then nothing has changed. What is no regular file, or may not be written, is never replaced.
bool replace_file(const std::string &path, std::string_view content, std::string &error);

// Says before the work for it is done whether `replace_file` stands a chance.
bool can_replace_file(const std::string &path, std::string &error);
