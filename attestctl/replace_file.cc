#include "attestctl/replace_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "attestctl/text.h"

namespace {

bool cannot_write(const std::string &path, const char *why, std::string &error)
{
    error = "cannot write " + printable(path) + ": " + why;
    return false;
}

// Where the file is, and what it is to be like.
struct destination {
    std::string path, folder; // without symbolic links where the file exists
    std::optional<mode_t> mode;
};

bool find_destination(const std::string &path, destination &found, std::string &error)
{
    const std::unique_ptr<char, void (*)(void *)> real(realpath(path.c_str(), nullptr), std::free);
    if (!real && (errno != ENOENT || path.empty() || path.back() == '/'))
        return cannot_write(path, std::strerror(errno), error);
    found.path = real ? real.get() : path;
    const std::size_t slash = found.path.rfind('/');
    found.folder = slash == std::string::npos ? "." : found.path.substr(0, slash + 1);
    struct stat status {};
    if (!real || stat(found.path.c_str(), &status) != 0)
        return true;
    if (!S_ISREG(status.st_mode))
        return cannot_write(path, S_ISDIR(status.st_mode) ? "Is a directory" : "not a regular file", error);
    found.mode = status.st_mode & 07777;
    return true;
}

bool write_all(int file, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t written = write(file, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// On the disk under this name, or not there at all with errno set.
bool write_new(const std::string &path, std::string_view content, std::optional<mode_t> mode)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode.value_or(0666));
    if (file < 0)
        return false;
    const bool written = write_all(file, content) && (!mode || fchmod(file, *mode) == 0) && fsync(file) == 0;
    int why = errno;
    const bool closed = close(file) == 0;
    if (written && closed)
        return true;
    why = written ? errno : why;
    unlink(path.c_str());
    errno = why;
    return false;
}

// A name change is on the disk when its folder is.
void sync_folder(const std::string &folder)
{
    const int opened = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0)
        return;
    fsync(opened);
    close(opened);
}

} // namespace

bool can_replace_file(const std::string &path, std::string &error)
{
    destination where;
    if (!find_destination(path, where, error))
        return false;
    if ((where.mode && access(where.path.c_str(), W_OK) != 0) ||
        access(where.folder.c_str(), W_OK | X_OK) != 0)
        return cannot_write(path, std::strerror(errno), error);
    return true;
}

bool replace_file(const std::string &path, std::string_view content, std::string &error)
{
    destination where;
    if (!can_replace_file(path, error) || !find_destination(path, where, error))
        return false;
    // Not by the process's id, which comes again: what a killed run left must not be in the way of the next.
    std::uint64_t unique = 0;
    if (getrandom(&unique, sizeof unique, 0) != static_cast<ssize_t>(sizeof unique))
        return cannot_write(path, "no random bytes", error);
    const std::string fresh = where.path + format(".%016lx.new", static_cast<unsigned long>(unique));
    if (!write_new(fresh, content, where.mode))
        return cannot_write(path, std::strerror(errno), error);
    if (rename(fresh.c_str(), where.path.c_str()) != 0) {
        const int why = errno;
        unlink(fresh.c_str());
        return cannot_write(path, std::strerror(why), error);
    }
    sync_folder(where.folder);
    return true;
}
