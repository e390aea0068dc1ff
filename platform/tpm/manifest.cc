#include "platform/tpm/manifest.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <set>

#include <nlohmann/json.hpp>

#include "platform/small_file.h"
#include "platform/tpm/client_status.h"

namespace {

using nlohmann::json;

constexpr int MANIFEST_VERSION = 1;
constexpr std::uint32_t HANDLE_KIND_MASK = 0xFF000000;

// Every getter says whether the member is there and of its type; nothing of the parser throws.
bool get_text(const json &object, const char *member, std::string &text)
{
    const auto found = object.find(member);
    if (found == object.end() || !found->is_string())
        return false;
    text = found->get_ref<const std::string &>();
    return text.find('\0') == std::string::npos;
}

bool get_hex(const json &object, const char *member, std::vector<std::uint8_t> &bytes)
{
    std::string text;
    return get_text(object, member, text) && hex_value(text, bytes);
}

// "0x" and hexadecimal digits; of the kind of handle that the caller expects.
bool get_handle(const json &object, const char *member, TPM2_HT kind, std::uint32_t &handle)
{
    std::string text;
    if (!get_text(object, member, text) || !text.starts_with("0x"))
        return false;
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data() + 2, end, handle, 16);
    return error == std::errc{} && stopped == end &&
           (handle & HANDLE_KIND_MASK) == static_cast<std::uint32_t>(kind) << 24;
}

// A file stays below the manifest's directory.
bool is_contained(const std::string &file)
{
    return !file.empty() && file.front() != '/' && ("/" + file + "/").find("/../") == std::string::npos;
}

bool read_key(const std::string &name, const json &value, manifest &loaded)
{
    manifest_key key{name, 0, {}};
    if (!value.is_object() || !get_handle(value, "handle", TPM2_HT_PERSISTENT, key.handle) ||
        !get_hex(value, "name", key.tpm_name))
        return false;
    loaded.keys.push_back(std::move(key));
    return true;
}

bool read_object(const std::string &name, const json &value, manifest &loaded)
{
    manifest_object object{name, {}, 0};
    if (name.empty() || !value.is_object() || value.contains("file") == value.contains("nv_index"))
        return false;
    const bool read = value.contains("file")
                          ? get_text(value, "file", object.file) && is_contained(object.file)
                          : get_handle(value, "nv_index", TPM2_HT_NV_INDEX, object.nv_index);
    if (read)
        loaded.objects.push_back(std::move(object));
    return read;
}

bool read_identifier(const json &value, manifest &loaded)
{
    manifest_identifier identifier{};
    if (!value.is_object() || !get_text(value, "place", identifier.place))
        return false;
    for (std::size_t i = 0; i < TPM_ALGORITHM_COUNT; ++i) {
        std::vector<std::uint8_t> digest;
        if (!get_hex(value, tpm_algorithms[i].name, digest) || digest.size() != tpm_algorithms[i].digest_size)
            return false;
        std::copy(digest.begin(), digest.end(), identifier.digests[i].begin());
    }
    loaded.identifiers.push_back(std::move(identifier));
    return true;
}

// A place that occurs twice would stand for two positions of the list.
bool places_differ(const manifest &loaded)
{
    std::set<std::string> places;
    return std::all_of(loaded.identifiers.begin(), loaded.identifiers.end(),
                       [&](const manifest_identifier &one) { return places.insert(one.place).second; });
}

bool read_manifest(const json &document, manifest &loaded)
{
    if (!document.is_object())
        return false;
    const auto version = document.find("version");
    const auto demonstration = document.find("demonstration_ca");
    const auto keys = document.find("keys");
    const auto objects = document.find("objects");
    const auto identifiers = document.find("identifiers");
    const auto end = document.end();
    if (version == end || !version->is_number_integer() || *version != MANIFEST_VERSION)
        return false;
    if (demonstration == end || !demonstration->is_boolean() || !get_text(document, "node", loaded.node))
        return false;
    loaded.demonstration_ca = demonstration->get<bool>();
    if (keys == end || !keys->is_object() || objects == end || !objects->is_object() || identifiers == end ||
        !identifiers->is_array() || identifiers->size() > MANIFEST_MAX_IDENTIFIERS)
        return false;
    for (const auto &[name, value] : keys->items()) {
        if (!read_key(name, value, loaded))
            return false;
    }
    for (const auto &[name, value] : objects->items()) {
        if (!read_object(name, value, loaded))
            return false;
    }
    return std::all_of(identifiers->begin(), identifiers->end(),
                       [&](const json &value) { return read_identifier(value, loaded); }) &&
           places_differ(loaded);
}

std::string handle_text(std::uint32_t handle)
{
    char text[sizeof "0x00000000"];
    std::snprintf(text, sizeof text, "0x%08x", handle);
    return text;
}

template <class Item>
const Item *find_named(const std::vector<Item> &items, const char *name)
{
    const auto found =
        std::find_if(items.begin(), items.end(), [name](const Item &item) { return item.name == name; });
    return found == items.end() ? nullptr : &*found;
}

} // namespace

std::string manifest_path()
{
    const char *set = std::getenv("ATTEST_TRUST_ANCHOR");
    return set != nullptr && *set != '\0' ? set : MANIFEST_DEFAULT_PATH;
}

kov_status manifest_load(const std::string &path, manifest &loaded)
{
    loaded = {};
    std::vector<std::uint8_t> content;
    const int error = small_file_read(path, MANIFEST_MAX_BYTES, content);
    if (error == ENOENT || error == ENOTDIR)
        return KOV_ERR_NOT_PROVISIONED;
    if (error == EFBIG || error == EINVAL) // too large, or no file
        return KOV_ERR_MANIFEST;
    if (error != 0)
        return kov_status_from_errno(error);
    manifest read;
    if (!read_manifest(json::parse(content, nullptr, false), read))
        return KOV_ERR_MANIFEST;
    const std::size_t slash = path.rfind('/');
    read.directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    loaded = std::move(read);
    return KOV_SUCCESS;
}

std::string manifest_text(const manifest &written)
{
    json keys = json::object();
    for (const manifest_key &key : written.keys)
        keys[key.name] = {{"handle", handle_text(key.handle)},
                          {"name", hex_text(key.tpm_name.data(), key.tpm_name.size())}};
    json objects = json::object();
    for (const manifest_object &object : written.objects) {
        objects[object.name] = object.file.empty() ? json{{"nv_index", handle_text(object.nv_index)}}
                                                   : json{{"file", object.file}};
    }
    json identifiers = json::array();
    for (const manifest_identifier &identifier : written.identifiers) {
        json entry{{"place", identifier.place}};
        for (std::size_t i = 0; i < TPM_ALGORITHM_COUNT; ++i)
            entry[tpm_algorithms[i].name] =
                hex_text(identifier.digests[i].data(), tpm_algorithms[i].digest_size);
        identifiers.push_back(std::move(entry));
    }
    const json document{{"version", MANIFEST_VERSION},
                        {"node", written.node},
                        {"demonstration_ca", written.demonstration_ca},
                        {"keys", std::move(keys)},
                        {"objects", std::move(objects)},
                        {"identifiers", std::move(identifiers)}};
    // Bytes that are no UTF-8 (a place made of a strange device name) are replaced rather than thrown over.
    return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

const manifest_key *manifest_find_key(const manifest &in, const char *name)
{
    return find_named(in.keys, name);
}

const manifest_object *manifest_find_object(const manifest &in, const char *name)
{
    return find_named(in.objects, name);
}

std::string hex_text(const std::uint8_t *bytes, std::size_t count)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xF];
    }
    return text;
}

bool hex_value(const std::string &text, std::vector<std::uint8_t> &bytes)
{
    bytes.clear();
    if (text.size() % 2 != 0)
        return false;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        std::uint8_t byte = 0;
        const char *end = text.data() + i + 2;
        if (std::from_chars(text.data() + i, end, byte, 16).ptr != end)
            return false;
        bytes.push_back(byte);
    }
    return true;
}
