#include "ima_cache/file_io.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

unique_fd open_file(const char *path, int flags, mode_t mode)
{
    // Whatever lies there instead of a regular file does not hold the agent up.
    unique_fd file(uninterrupted([=] { return open(path, flags | O_CLOEXEC | O_NONBLOCK, mode); }));
    if (file.get() == 0)
        file.reset(fcntl(0, F_DUPFD_CLOEXEC, 1));
    return file;
}

namespace {

// A directory, full or empty, can be renamed where it cannot be removed. Nobody can guess the new name and
// lay something there, too.
void put_aside(const char *name)
{
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number))
        return;
    std::array<char, 128> path{};
    std::array<char, 160> aside{};
    std::snprintf(path.data(), path.size(), "/dev/shm/%s", name);
    std::snprintf(aside.data(), aside.size(), "%s.foreign.%016lx", path.data(), number);
    std::rename(path.data(), aside.data());
}

} // namespace

unique_fd open_own_object(const char *name, int more_flags, mode_t mode)
{
    unique_fd object(shm_open(name, O_RDWR | more_flags, mode));
    struct stat state {};
    bool foreign =
        object ? fstat(object.get(), &state) != 0 || !S_ISREG(state.st_mode) || state.st_uid != geteuid()
               : errno == EACCES || errno == ELOOP || errno == ENXIO || errno == EINVAL; // for a directory
    if (foreign) {
        object.reset();
        if (shm_unlink(name) != 0)
            put_aside(name);
    }
    return object;
}

int read_at(int fd, std::span<std::byte> bytes, off_t offset)
{
    while (!bytes.empty()) {
        ssize_t got = uninterrupted([=] { return pread(fd, bytes.data(), bytes.size(), offset); });
        if (got <= 0)
            return static_cast<int>(got);
        bytes = bytes.subspan(static_cast<std::size_t>(got));
        offset += got;
    }
    return 1;
}

namespace {

void blank(int fd, std::size_t length, off_t offset)
{
    static constexpr std::array<std::byte, 4096> zeros{};
    while (length > 0) {
        std::size_t piece = std::min(length, zeros.size());
        ssize_t written = uninterrupted([=] { return pwrite(fd, zeros.data(), piece, offset); });
        if (written <= 0)
            return;
        length -= static_cast<std::size_t>(written);
        offset += written;
    }
}

} // namespace

bool write_or_blank(int fd, std::span<const std::byte> bytes, off_t offset)
{
    ssize_t written = uninterrupted([=] { return pwrite(fd, bytes.data(), bytes.size(), offset); });
    if (written == static_cast<ssize_t>(bytes.size()))
        return true;
    if (written > 0)
        blank(fd, static_cast<std::size_t>(written), offset);
    return false;
}

int reserve(int fd, off_t size)
{
    int error = EINTR;
    while (error == EINTR)
        error = posix_fallocate(fd, 0, size);
    return error;
}

bool is_missing(const char *path)
{
    struct stat state {};
    return stat(path, &state) != 0 && errno == ENOENT;
}

bool ensure_directory(const char *path)
{
    struct stat state {};
    return mkdir(path, 0700) == 0 || (stat(path, &state) == 0 && S_ISDIR(state.st_mode));
}
