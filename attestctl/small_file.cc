#include "attestctl/small_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "attestctl/text.h"

bool read_small_file(const std::string &path, std::string &content, std::string &error)
{
    constexpr std::size_t LARGEST = 1 << 20;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "re"), std::fclose);
    if (!file) {
        error = "cannot read " + printable(path) + ": " + std::strerror(errno);
        return false;
    }
    content.resize(LARGEST + 1);
    content.resize(std::fread(content.data(), 1, content.size(), file.get()));
    if (std::ferror(file.get()) != 0)
        error = "cannot read " + printable(path) + ": " + std::strerror(errno);
    else if (content.size() > LARGEST)
        error = printable(path) + " is larger than 1 MiB";
    return error.empty();
}
