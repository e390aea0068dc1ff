// A mapped shared-memory object that has memory only where it was used.
//
// A page that nobody used is a hole, and when the file system is full by then, touching it would be the
// process's death by SIGBUS. So a page is asked for before its first use, and the answer can be no.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/owners.h"

struct shm_object {
    unique_fd file;
    std::byte *base = nullptr;
    std::size_t size = 0;
    unsigned page_shift = 0;
    malloc_ptr<std::uint64_t> backed; // a bit a page: known to have memory

    shm_object() = default;
    shm_object(const shm_object &) = delete;
    shm_object &operator=(const shm_object &) = delete;
    ~shm_object();
};

// Maps `size` bytes of the file, shared, readable and writable. False when they cannot be mapped; the file
// stays the object's.
bool shm_object_map(shm_object &object, std::size_t size);

// Makes room for the notes on which pages have memory; before the first shm_object_back. False without
// memory.
bool shm_object_track_pages(shm_object &object);

// Whether the bytes, which lie in the mapping, have memory; gives it to them if need be.
bool shm_object_back(shm_object &object, const void *bytes, std::size_t length);
