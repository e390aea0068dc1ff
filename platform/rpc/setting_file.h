// Small files that settings name: read whole, and looked at for changes.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

// Reads a regular file of at most 1 MiB: 0, or a status with *why in words. An empty file is EBADMSG's.
std::uint32_t rpc_setting_file_read(const std::string &path, std::string *content, std::string *why);

// What tells a file from the one that was there before: another one in its place, or another content.
struct rpc_file_mark {
    dev_t device = 0;
    ino_t number = 0;
    off_t size = 0;
    std::int64_t modified_ns = 0, changed_ns = 0;
    bool operator==(const rpc_file_mark &) const = default;
};

// All zeros for a file that is not there. Links are followed.
rpc_file_mark rpc_file_mark_of(const std::string &path);
