#include "attestctl/kept_json.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <set>

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

// The file's nodes; none where there is no file, and then or with an error: nullptr.
const json *nodes_of(const json &content, const kept_file &file, const kept_kind &kind, std::string &error)
{
    if (!file.existed)
        return nullptr;
    std::uint32_t version = 0;
    const json *nodes = member(content, "nodes");
    if (file.content.empty())
        error = printable(file.path) + " is empty";
    else if (content.is_discarded())
        error = printable(file.path) + " is no whole JSON text";
    else if (!take(content, kind.name, version) || version != 1)
        error = printable(file.path) + " is no file of kind \"" + kind.name + "\", version 1";
    else if (nodes == nullptr || !nodes->is_array())
        error = printable(file.path) + " has no list \"nodes\"";
    return error.empty() ? nodes : nullptr;
}

} // namespace

bool read_kept_nodes(const std::string &path, const kept_kind &kind, kept_file &file,
                     const std::function<bool(const std::string &target, const json &entry)> &take_entry,
                     std::string &error)
{
    if (!read_kept_file(path, file, error) || !can_replace_file(path, error))
        return false;
    const json content = json::parse(file.content, nullptr, false);
    const json *nodes = nodes_of(content, file, kind, error);
    if (nodes == nullptr)
        return error.empty();
    std::set<std::string> targets;
    for (const json &node : *nodes) {
        std::string target;
        const json &entries = list_at(node, kind.entries);
        if (!take(node, "target", target) || !targets.insert(target).second || entries.empty() ||
            !std::all_of(entries.begin(), entries.end(),
                         [&](const json &entry) { return take_entry(target, entry); })) {
            error = printable(path) + format(": entry %td of \"nodes\" is not as attestctl writes it",
                                             &node - &nodes->front() + 1);
            return false;
        }
    }
    return true;
}

bool write_kept_nodes(kept_file &file, const kept_kind &kind, const kept_nodes &nodes, std::string &error)
{
    json list = json::array();
    for (const auto &[target, entries] : nodes)
        list.push_back({{"target", target}, {kind.entries, entries}});
    const json content = {{kind.name, 1}, {"nodes", std::move(list)}};
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
