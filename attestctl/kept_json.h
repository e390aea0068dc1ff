// Files that attestctl keeps between runs, in JSON: read as what a stranger may have written, and replaced as
// a whole.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "attestctl/kept_file.h"

// Reads the file at `path`, which has a whole JSON object with the member `kind` of the value 1; null where
// there is no file. False, and `error` has one line, also when it could not be replaced later.
bool read_kept_json(const std::string &path, const char *kind, kept_file &file, nlohmann::json &into,
                    std::string &error);

// Gives the entries of the list at `name` to `take_entry` until it refuses one. False, and `error` has one
// line, when it did or when there is no list in a file that exists.
bool read_kept_list(const nlohmann::json &content, const kept_file &file, const char *name,
                    std::string &error, const std::function<bool(const nlohmann::json &entry)> &take_entry);

// Replaces the file, indented, to be read by people too. False, the old file left as it is, and `error` has
// one line; also when somebody else has changed the file since it was read.
bool replace_kept_json(kept_file &file, const nlohmann::json &content, std::string &error);

// A member of an object. False where it is not there, of another type or does not fit.
bool take(const nlohmann::json &object, const char *name, std::string &text);
bool take(const nlohmann::json &object, const char *name, std::uint64_t &number);
bool take(const nlohmann::json &object, const char *name, std::uint32_t &number);
bool take(const nlohmann::json &object, const char *name, bool &flag);
bool take_hex(const nlohmann::json &object, const char *name, std::size_t size, std::string &bytes);

// The array at `name`; none: an empty one.
const nlohmann::json &list_at(const nlohmann::json &object, const char *name);
