#include "tools/attest_provision/node_directory.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>

#include "platform/small_file.h"
#include "tools/attest_provision/report.h"

namespace {

namespace fs = std::filesystem;

constexpr char INVENTORY_NAME[] = "trust_anchor.inventory";
constexpr std::size_t INVENTORY_MAX = 65536;
constexpr char FOLDER_PREFIX[] = "certificates-";

bool write_and_sync(int fd, const std::string &content)
{
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t count = write(fd, content.data() + done, content.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return fsync(fd) == 0;
}

bool sync_directory_of(const std::string &path)
{
    const unique_fd parent(open(fs::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return parent && fsync(parent.get()) == 0;
}

// Only what this program makes: a folder name is also what is removed.
bool is_folder_name(const std::string &name)
{
    return name.starts_with(FOLDER_PREFIX) && name.find('/') == std::string::npos;
}

void read_line(const std::string &line, inventory &read)
{
    std::istringstream words(line);
    std::string kind;
    std::string what;
    std::string tpm_name;
    words >> kind >> what >> tpm_name;
    if (kind == "folder" && is_folder_name(what))
        read.folders.push_back(what);
    std::uint32_t handle = 0;
    const char *end = what.data() + what.size();
    if (kind == "key" && what.starts_with("0x") && !tpm_name.empty() &&
        std::from_chars(what.data() + 2, end, handle, 16).ptr == end)
        read.keys.push_back({handle, tpm_name});
}

} // namespace

bool node_directory_open(const std::string &manifest_path, node_directory &directory)
{
    const fs::path manifest(manifest_path);
    directory.path = manifest.has_parent_path() ? manifest.parent_path().string() : ".";
    directory.manifest_path = directory.path + "/" + manifest.filename().string();
    std::error_code error;
    fs::create_directories(directory.path, error);
    directory.lock.reset(open(directory.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.lock)
        return complain_of_errno("cannot open " + directory.path, errno);
    if (flock(directory.lock.get(), LOCK_EX | LOCK_NB) != 0)
        return complain("another run is at work on " + directory.path);
    return true;
}

bool node_directory_write(const node_directory &directory, const std::string &name,
                          const std::string &content)
{
    const std::string path = directory.path + "/" + name;
    const std::string temporary = path + ".new";
    const unique_fd file(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!file || !write_and_sync(file.get(), content) || rename(temporary.c_str(), path.c_str()) != 0 ||
        !sync_directory_of(path)) {
        const int error = errno;
        unlink(temporary.c_str());
        return complain_of_errno("cannot write " + path, error);
    }
    return true;
}

inventory inventory_read(const node_directory &directory)
{
    std::vector<std::uint8_t> content;
    inventory read;
    if (small_file_read(directory.path + "/" + INVENTORY_NAME, INVENTORY_MAX, content) != 0)
        return read;
    std::istringstream lines(std::string(content.begin(), content.end()));
    for (std::string line; std::getline(lines, line);)
        read_line(line, read);
    return read;
}

bool inventory_write(const node_directory &directory, const inventory &written)
{
    std::ostringstream text;
    for (const inventory_key &key : written.keys)
        text << "key 0x" << std::hex << key.handle << ' ' << key.tpm_name << '\n';
    for (const std::string &folder : written.folders)
        text << "folder " << folder << '\n';
    return node_directory_write(directory, INVENTORY_NAME, text.str());
}

bool node_directory_remove_folder(const node_directory &directory, const std::string &folder)
{
    std::error_code error;
    if (is_folder_name(folder))
        fs::remove_all(directory.path + "/" + folder, error);
    return !error || complain_of_errno("cannot remove " + directory.path + "/" + folder, error.value());
}
