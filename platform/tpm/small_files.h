// Whole small files, with a bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Reads a regular file of at most `limit` bytes. 0, or the errno: EFBIG for a larger one, EINVAL for what is
// not a regular file; `content` is empty then. May throw for want of memory.
int small_file_read(const std::string &path, std::size_t limit, std::vector<std::uint8_t> &content);

// What is between the blanks of a text file (line ends included): empty when there is no file or no text.
std::string small_text_read(const std::string &path);
