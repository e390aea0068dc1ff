// Files, with interrupted calls taken up again.
#pragma once

#include <cerrno>
#include <cstddef>
#include <span>
#include <sys/types.h>

#include "platform/owners.h"

template <class Call>
auto uninterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

// Opens a file, closed on exec and never as descriptor 0.
unique_fd open_file(const char *path, int flags, mode_t mode = 0);

// Opens a shared-memory object for reading and writing. What another user has laid under the name, in a
// directory where everybody may, is removed instead, a directory renamed: who can write it could end us by
// cutting it, or lead our writes elsewhere.
unique_fd open_own_object(const char *name, int more_flags, mode_t mode);

// 1, the bytes from `offset` on have been read; 0, the file ends inside them; -1, it cannot be read.
int read_at(int fd, std::span<std::byte> bytes, off_t offset);

// Writes with one call. When that has written less than all, what it has written is blanked with zeros again,
// as far as that is possible, and the result is false.
bool write_or_blank(int fd, std::span<const std::byte> bytes, off_t offset);

// Gives the file its first `size` bytes on disk. 0, or the error (an errno).
int reserve(int fd, off_t size);

// False also when it cannot be found out that the path does not exist.
bool is_missing(const char *path);

// True when `path` is a directory now.
bool ensure_directory(const char *path);

template <class T>
std::span<std::byte> writable_bytes_of(T &value)
{
    return std::as_writable_bytes(std::span(&value, 1));
}
template <class T>
std::span<const std::byte> bytes_of(const T &value)
{
    return std::as_bytes(std::span(&value, 1));
}
