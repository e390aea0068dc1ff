#include "platform/linux/trace_file.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <utility>

#include "platform/linux/run_directory.h"
#include "platform/status.h"

namespace {

// Group members may read the trace, nobody else; the directory likewise.
constexpr mode_t FILE_MODE = 0640;
constexpr mode_t DIRECTORY_MODE = 0750;
// Two processes that start together may each see the other's file come and go; one of them wins soon.
constexpr int OPEN_ATTEMPTS = 8;

std::uint32_t last_error()
{
    return platform_status_from_errno(errno);
}

struct flock whole_file_lock()
{
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

std::uint32_t open_run_directory(unique_fd &directory)
{
    std::string path = run_directory();
    if (mkdir(path.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST)
        return last_error();
    directory.reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory ? 0 : last_error();
}

enum class entry_kind { ours, replaced, foreign };

// What the locked file is: one of ours, one that is no longer at the path, or something to keep out of.
entry_kind judge(int directory, const char *name, const struct stat &opened, std::size_t size)
{
    struct stat at_path {};
    if (fstatat(directory, name, &at_path, AT_SYMLINK_NOFOLLOW) != 0 || at_path.st_ino != opened.st_ino ||
        at_path.st_dev != opened.st_dev)
        return entry_kind::replaced;
    bool fits = opened.st_size == 0 || opened.st_size == static_cast<off_t>(size);
    bool private_file = S_ISREG(opened.st_mode) && opened.st_uid == geteuid() && opened.st_nlink == 1 &&
                        (opened.st_mode & S_IWOTH) == 0;
    return fits && private_file ? entry_kind::ours : entry_kind::foreign;
}

std::uint32_t set_aside(int directory, const char *name)
{
    std::string aside = std::string(name) + ".foreign";
    return renameat(directory, name, directory, aside.c_str()) == 0 || errno == ENOENT ? 0 : last_error();
}

// Opens and locks the file at the path. `fd` stays empty when the file was set aside: try again.
std::uint32_t open_and_lock(int directory, const char *name, std::size_t size, unique_fd &fd,
                            struct stat &opened)
{
    // O_NONBLOCK: a pipe at the path must not stop the start.
    fd.reset(openat(directory, name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, FILE_MODE));
    if (!fd)
        return errno == ELOOP || errno == ENXIO ? set_aside(directory, name) : last_error();
    struct flock lock = whole_file_lock();
    if (fcntl(fd.get(), F_OFD_SETLK, &lock) != 0)
        return errno == EAGAIN || errno == EACCES ? platform_status_from_errno(EBUSY) : last_error();
    if (fstat(fd.get(), &opened) != 0)
        return last_error();
    entry_kind kind = judge(directory, name, opened, size);
    if (kind != entry_kind::ours)
        fd.reset();
    return kind == entry_kind::foreign ? set_aside(directory, name) : 0;
}

} // namespace

void trace_file::close()
{
    if (memory_ != nullptr)
        munmap(std::exchange(memory_, nullptr), size_);
    fd_.reset();
}

std::uint32_t trace_file::open(const char *name, std::size_t size,
                               bool (*recognise)(const void *memory, std::size_t size))
{
    unique_fd directory;
    if (std::uint32_t status = open_run_directory(directory))
        return status;
    for (int attempt = 0; attempt < OPEN_ATTEMPTS; ++attempt) {
        unique_fd fd;
        struct stat opened {};
        std::uint32_t status = open_and_lock(directory.get(), name, size, fd, opened);
        if (status != 0)
            return status;
        if (!fd)
            continue;
        // The blocks are taken now: a full file system must fail the start, not kill a line with SIGBUS.
        if (int error = posix_fallocate(fd.get(), 0, static_cast<off_t>(size)); error != 0)
            return platform_status_from_errno(error);
        void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        if (memory == MAP_FAILED)
            return last_error();
        if (opened.st_size == 0 || recognise(memory, size)) {
            close();
            fd_ = std::move(fd);
            memory_ = memory;
            size_ = size;
            is_new_ = opened.st_size == 0;
            return 0;
        }
        munmap(memory, size);
        if ((status = set_aside(directory.get(), name)) != 0)
            return status;
    }
    return platform_status_from_errno(EBUSY);
}

bool trace_file_in_use(int fd)
{
    struct flock lock = whole_file_lock();
    return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}
