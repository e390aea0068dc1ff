#include "attestctl/kept_json.h"

#include <cerrno>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "attestctl/replace_file.h"
#include "attestctl/text.h"

using nlohmann::json;

namespace {

// Some thousand nodes. A file that is larger is none of attestctl's.
constexpr std::size_t LARGEST = 16 << 20;

// Appends what is left to be read, up to one byte more than the largest file has; false with errno.
bool read_all(int file, std::string &content)
{
    while (content.size() <= LARGEST) {
        constexpr std::size_t STEP = 1 << 16;
        const std::size_t begin = content.size();
        content.resize(begin + STEP);
        const ssize_t got = read(file, content.data() + begin, STEP);
        content.resize(begin + (got > 0 ? static_cast<std::size_t>(got) : 0));
        if (got == 0 || (got < 0 && errno != EINTR))
            return got == 0;
    }
    return true;
}

bool read_kept_file(const std::string &path, kept_file &into, std::string &error)
{
    into = {path, {}, false};
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); // a pipe would be waited for
    if (file < 0 && errno == ENOENT)
        return true;
    struct stat what {};
    const bool known = file >= 0 && fstat(file, &what) == 0;
    const bool regular = known && S_ISREG(what.st_mode);
    into.existed = regular && read_all(file, into.content);
    const int why = errno;
    if (file >= 0)
        close(file);
    if (known && !regular)
        error = printable(path) + " is no regular file";
    else if (!into.existed)
        error = "cannot read " + printable(path) + ": " + std::strerror(why);
    else if (into.content.size() > LARGEST)
        error = printable(path) + " is larger than 16 MiB";
    return error.empty();
}

// None: nullptr.
const json *member(const json &object, const char *name)
{
    if (!object.is_object())
        return nullptr;
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

} // namespace

bool read_kept_json(const std::string &path, const char *kind, kept_file &file, json &into,
                    std::string &error)
{
    into = nullptr;
    if (!read_kept_file(path, file, error) || !can_replace_file(path, error))
        return false;
    if (!file.existed)
        return true;
    into = json::parse(file.content, nullptr, false);
    std::uint32_t version = 0;
    if (file.content.empty())
        error = printable(path) + " is empty";
    else if (into.is_discarded())
        error = printable(path) + " is no whole JSON text";
    else if (!take(into, kind, version) || version != 1)
        error = printable(path) + " is no file of kind \"" + kind + "\", version 1";
    return error.empty();
}

bool read_kept_list(const json &content, const kept_file &file, const char *name, std::string &error,
                    const std::function<bool(const json &entry)> &take_entry)
{
    const json *list = member(content, name);
    if (file.existed && (list == nullptr || !list->is_array()))
        error = printable(file.path) + " has no list \"" + name + '"';
    std::size_t number = 0;
    for (const json &entry : list_at(content, name)) {
        ++number;
        if (!take_entry(entry)) {
            error = printable(file.path) +
                    format(": entry %zu of \"%s\" is not as attestctl writes it", number, name);
            break;
        }
    }
    return error.empty();
}

bool replace_kept_json(kept_file &file, const json &content, std::string &error)
{
    const std::string text = content.dump(1, ' ', false, json::error_handler_t::replace) + '\n';
    if (file.existed && text == file.content)
        return true;
    kept_file now;
    if (!read_kept_file(file.path, now, error))
        return false;
    if (now.existed != file.existed || now.content != file.content)
        error = printable(file.path) + " was changed by somebody else meanwhile and is left as it is";
    else if (text.size() > LARGEST)
        error = printable(file.path) + " would become larger than 16 MiB and is left as it is";
    if (!error.empty() || !replace_file(file.path, text, error))
        return false;
    file.existed = true;
    file.content = text;
    return true;
}

bool take(const json &object, const char *name, std::string &text)
{
    const json *value = member(object, name);
    if (value == nullptr || !value->is_string())
        return false;
    text = value->get_ref<const std::string &>();
    return true;
}

bool take(const json &object, const char *name, std::uint64_t &number)
{
    const json *value = member(object, name);
    if (value == nullptr || !value->is_number_unsigned())
        return false;
    number = value->get<std::uint64_t>();
    return true;
}

bool take(const json &object, const char *name, std::uint32_t &number)
{
    std::uint64_t wide = 0;
    if (!take(object, name, wide) || wide > std::numeric_limits<std::uint32_t>::max())
        return false;
    number = static_cast<std::uint32_t>(wide);
    return true;
}

bool take(const json &object, const char *name, bool &flag)
{
    const json *value = member(object, name);
    if (value == nullptr || !value->is_boolean())
        return false;
    flag = value->get<bool>();
    return true;
}

bool take_hex(const json &object, const char *name, std::size_t size, std::string &bytes)
{
    std::string text;
    return take(object, name, text) && text.size() == 2 * size && from_hex(text, bytes);
}

const json &list_at(const json &object, const char *name)
{
    static const json NONE = json::array();
    const json *value = member(object, name);
    return value != nullptr && value->is_array() ? *value : NONE;
}
