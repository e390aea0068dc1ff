// Files that settings name.
#pragma once

#include <cstdint>
#include <string>

// Reads a regular file of at most 1 MiB: 0, or a status with *why in words. An empty file is EBADMSG's.
std::uint32_t rpc_setting_file_read(const std::string &path, std::string *content, std::string *why);
