// Files about nodes that attestctl keeps between runs, in JSON: read as what a stranger may have written, and
// replaced as a whole.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "attestctl/kept_file.h"

// What a file of attestctl's is about.
struct kept_kind {
    const char *name;    // the file's member of this name has the value 1
    const char *entries; // the member of a node that has its list
};

// Reads the file at `path`, which has a whole JSON object, and gives each entry of each node, which has one
// at least, to `take_entry` until it refuses one; a file that does not exist has no node. False, and `error`
// has one line, also when the file could not be replaced later.
bool read_kept_nodes(
    const std::string &path, const kept_kind &kind, kept_file &file,
    const std::function<bool(const std::string &target, const nlohmann::json &entry)> &take_entry,
    std::string &error);

// Replaces the file where something has changed, indented, to be read by people too. False, the old file left
// as it is, and `error` has one line; also when somebody else has changed the file since it was read.
using kept_nodes = std::map<std::string, std::vector<nlohmann::json>>; // entries, by target
bool write_kept_nodes(kept_file &file, const kept_kind &kind, const kept_nodes &nodes, std::string &error);

// A member of an object. False where it is not there, of another type or does not fit.
bool take(const nlohmann::json &object, const char *name, std::string &text);
bool take(const nlohmann::json &object, const char *name, std::uint64_t &number);
bool take(const nlohmann::json &object, const char *name, std::uint32_t &number);
bool take(const nlohmann::json &object, const char *name, bool &flag);
bool take_hex(const nlohmann::json &object, const char *name, std::size_t size, std::string &bytes);

// The array at `name`; none: an empty one.
const nlohmann::json &list_at(const nlohmann::json &object, const char *name);
