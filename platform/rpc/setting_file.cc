#include "platform/rpc/setting_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/owners.h"
#include "platform/status.h"

namespace {

// A bundle of a few hundred CAs; what is larger is not what was meant.
constexpr std::size_t LARGEST_FILE = std::size_t{1} << 20;

std::uint32_t refuse(int error, const char *reason, std::string *why)
{
    *why = reason;
    return platform_status_from_errno(error);
}

std::int64_t nanoseconds(const timespec &time)
{
    return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

} // namespace

// Opened without waiting, so that a FIFO in the file's place cannot hang the start.
std::uint32_t rpc_setting_file_read(const std::string &path, std::string *content, std::string *why)
{
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat about {};
    if (!fd || fstat(fd.get(), &about) != 0)
        return refuse(errno, std::strerror(errno), why);
    if (!S_ISREG(about.st_mode))
        return refuse(EINVAL, "not a regular file", why);
    std::string bytes(LARGEST_FILE + 1, '\0');
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t got = read(fd.get(), bytes.data() + length, bytes.size() - length);
        if (got < 0)
            return refuse(errno, std::strerror(errno), why);
        if (got == 0)
            break;
        length += static_cast<std::size_t>(got);
    }
    if (length == 0)
        return refuse(EBADMSG, "the file is empty", why);
    if (length > LARGEST_FILE)
        return refuse(EFBIG, "larger than 1 MiB", why);
    bytes.resize(length);
    *content = std::move(bytes);
    return 0;
}

rpc_file_mark rpc_file_mark_of(const std::string &path)
{
    struct stat about {};
    if (stat(path.c_str(), &about) != 0)
        return {};
    return {about.st_dev, about.st_ino, about.st_size, nanoseconds(about.st_mtim),
            nanoseconds(about.st_ctim)};
}
