#include "platform/rpc/setting_file.h"

#include <cerrno>
#include <cstring>

#include "platform/small_file.h"
#include "platform/status.h"

namespace {

// A bundle of a few hundred CAs; what is larger is not what was meant.
constexpr std::size_t LARGEST_FILE = std::size_t{1} << 20;

const char *words_for(int error)
{
    switch (error) {
    case EINVAL:
        return "not a regular file";
    case EFBIG:
        return "larger than 1 MiB";
    case EBADMSG:
        return "the file is empty";
    default:
        return std::strerror(error);
    }
}

} // namespace

std::uint32_t rpc_setting_file_read(const std::string &path, std::string *content, std::string *why)
{
    std::vector<std::uint8_t> bytes;
    int error = small_file_read(path, LARGEST_FILE, bytes);
    if (error == 0 && bytes.empty())
        error = EBADMSG;
    if (error != 0) {
        *why = words_for(error);
        return platform_status_from_errno(error);
    }
    content->assign(bytes.begin(), bytes.end());
    return 0;
}
