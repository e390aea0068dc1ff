// A file of fixed size in the run directory that one process at a time writes through a shared mapping.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/owners.h"

class trace_file {
public:
    trace_file() = default;
    trace_file(const trace_file &) = delete;
    trace_file &operator=(const trace_file &) = delete;
    ~trace_file() { close(); }

    // Opens `name` with `size` bytes for this process alone, until close or the end of the process. The run
    // directory is made when it is missing. A file that is there is continued when `recognise` says so of its
    // bytes; anything else at the path (a symbolic link, another size, a foreign file) is renamed to
    // "NAME.foreign" and a file of zeros made in its place. 0; or a platform status, and nothing is open:
    // EBUSY when another live process has the file, EISDIR when a directory is in the way.
    std::uint32_t open(const char *name, std::size_t size,
                       bool (*recognise)(const void *memory, std::size_t size));

    void close();

    void *memory() const { return memory_; }
    bool is_new() const { return is_new_; } // all zeros, to be initialised

private:
    unique_fd fd_; // its lock is what keeps other writers away
    void *memory_ = nullptr;
    std::size_t size_ = 0;
    bool is_new_ = false;
};

// Whether a live process has the file open as above.
bool trace_file_in_use(int fd);
