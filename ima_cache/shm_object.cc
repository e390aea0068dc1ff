#include "ima_cache/shm_object.h"

#include <bit>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "ima_cache/file_io.h"

namespace {

constexpr std::size_t WORD_BITS = 64;

bool give_page(const shm_object &object, std::size_t page)
{
    std::size_t offset = page << object.page_shift;
    std::size_t length = std::size_t{1} << object.page_shift;
    int result = uninterrupted([&] { return madvise(object.base + offset, length, MADV_POPULATE_WRITE); });
    // Kernels before 5.14 cannot populate; there the page at least gets its memory, and the first touch maps
    // it.
    if (result < 0 && errno == EINVAL)
        result = fallocate(object.file.get(), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                           static_cast<off_t>(length));
    return result == 0;
}

} // namespace

shm_object::~shm_object()
{
    if (base != nullptr)
        munmap(base, size);
}

bool shm_object_map(shm_object &object, std::size_t size)
{
    void *mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, object.file.get(), 0);
    if (mapped == MAP_FAILED)
        return false;
    object.base = static_cast<std::byte *>(mapped);
    object.size = size;
    return true;
}

bool shm_object_track_pages(shm_object &object)
{
    object.page_shift = static_cast<unsigned>(std::countr_zero(static_cast<std::size_t>(getpagesize())));
    std::size_t pages = (object.size >> object.page_shift) + 1;
    object.backed.reset(
        static_cast<std::uint64_t *>(std::calloc(pages / WORD_BITS + 1, sizeof(std::uint64_t))));
    return object.backed != nullptr;
}

bool shm_object_back(shm_object &object, const void *bytes, std::size_t length)
{
    std::size_t begin = static_cast<std::size_t>(static_cast<const std::byte *>(bytes) - object.base);
    std::size_t last = (begin + length - 1) >> object.page_shift;
    for (std::size_t page = begin >> object.page_shift; page <= last; ++page) {
        std::uint64_t &word = object.backed.get()[page / WORD_BITS];
        std::uint64_t bit = std::uint64_t{1} << page % WORD_BITS;
        if ((word & bit) != 0)
            continue;
        if (!give_page(object, page))
            return false;
        word |= bit;
    }
    return true;
}
