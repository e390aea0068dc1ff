#include "platform/small_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

#include "platform/owners.h"

namespace {

constexpr std::size_t TEXT_MAX = 4096; // an attribute of sysfs is a page at most
constexpr std::size_t FIRST_READ = 4096;

std::int64_t nanoseconds(const timespec &time)
{
    return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

} // namespace

int small_file_read(const std::string &path, std::size_t limit, std::vector<std::uint8_t> &content)
{
    content.clear();
    // Not to hang on a FIFO that somebody put there.
    const unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return EINVAL;
    // The size that a pseudo file reports means nothing: what can be read does.
    std::vector<std::uint8_t> read_so_far;
    std::size_t have = 0;
    while (have <= limit) {
        if (have == read_so_far.size())
            read_so_far.resize(std::min(limit + 1, 2 * have + FIRST_READ));
        const ssize_t count = read(file.get(), read_so_far.data() + have, read_so_far.size() - have);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno;
        if (count == 0)
            break;
        have += static_cast<std::size_t>(count);
    }
    if (have > limit)
        return EFBIG;
    read_so_far.resize(have);
    content = std::move(read_so_far);
    return 0;
}

std::string small_text_read(const std::string &path)
{
    constexpr std::string_view blanks(" \t\r\n\0", 5); // the device tree's texts end in NUL
    std::vector<std::uint8_t> content;
    if (small_file_read(path, TEXT_MAX, content) != 0)
        return {};
    const std::string text(content.begin(), content.end());
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

file_mark file_mark_of(const std::string &path)
{
    struct stat about {};
    if (stat(path.c_str(), &about) != 0)
        return {};
    return {about.st_dev, about.st_ino, about.st_size, nanoseconds(about.st_mtim),
            nanoseconds(about.st_ctim)};
}
