// Files as the evidence collectors read them: whole, and without trusting a size that somebody tells.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

struct file_closer {
    void operator()(std::FILE *file) const noexcept { std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

// Reads the whole file at `path` into a new buffer, until a read returns no bytes, so that files without a
// size (securityfs, procfs) come whole too. At least 1024 zero bytes follow the data.
//
// 0, with *buffer owned by the caller (free) and *size its bytes of data; or -1, with *buffer null and *size
// 0, and a trace line: the file cannot be opened, there is no memory, or it has more than 1 GiB less 1024
// bytes. An error while reading counts as the end of the file: a directory gives no bytes.
int read_file(const char *path, std::byte **buffer, std::uint64_t *size);
