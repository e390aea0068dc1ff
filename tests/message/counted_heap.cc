#include "tests/message/counted_heap.h"

#include <malloc.h>

counted_heap heap;

namespace {

bool refused()
{
    ++heap.allocations;
    return heap.refuse_from != 0 && heap.allocations >= heap.refuse_from &&
           heap.allocations < heap.refuse_from + heap.refuse_count;
}

void *counted(void *memory)
{
    if (memory != nullptr) {
        ++heap.live_blocks;
        heap.live_bytes += malloc_usable_size(memory);
        if (heap.live_bytes > heap.peak_bytes)
            heap.peak_bytes = heap.live_bytes;
    }
    return memory;
}

} // namespace

extern "C" {

void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
void __real_free(void *memory);

void *__wrap_malloc(std::size_t size)
{
    return refused() ? nullptr : counted(__real_malloc(size));
}

void *__wrap_calloc(std::size_t count, std::size_t size)
{
    return refused() ? nullptr : counted(__real_calloc(count, size));
}

void __wrap_free(void *memory)
{
    if (memory != nullptr) {
        --heap.live_blocks;
        heap.live_bytes -= malloc_usable_size(memory);
    }
    __real_free(memory);
}
}
