// Small files: read whole, with a bound, and known again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// Reads a regular file of at most `limit` bytes. 0, or the errno: EFBIG for a larger one, EINVAL for what is
// not a regular file; `content` is empty then. May throw for want of memory.
int small_file_read(const std::string &path, std::size_t limit, std::vector<std::uint8_t> &content);

// What is between the blanks of a text file (line ends included): empty when there is no file or no text.
std::string small_text_read(const std::string &path);

// What tells a file from the one that was there before: another one in its place, or another content.
struct file_mark {
    dev_t device = 0;
    ino_t number = 0;
    off_t size = 0;
    std::int64_t modified_ns = 0, changed_ns = 0;
    bool operator==(const file_mark &) const = default;
};

// All zeros for a file that is not there. Links are followed.
file_mark file_mark_of(const std::string &path);
