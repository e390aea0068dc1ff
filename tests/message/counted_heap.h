// The message library's heap, counted, and made to fail where a test wants it. The linker sends this
// program's malloc, calloc and free through it (--wrap); protobuf and the C++ library allocate elsewhere.
#pragma once

#include <cstddef>

struct counted_heap {
    long live_blocks; // allocated and not freed
    std::size_t live_bytes;
    std::size_t peak_bytes;
    long allocations;  // asked for, also those that were refused
    long refuse_from;  // the first allocation that is refused, counted from 1; 0 is none
    long refuse_count; // how many are refused from there
};

extern counted_heap heap;
