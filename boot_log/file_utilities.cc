#include "boot_log/file_utilities.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <sys/stat.h>

#include "agent/debug_trace.h"
#include "platform/owners.h"

namespace {

// The first capacity, and the zero bytes that always follow the data.
constexpr std::int32_t SPARE = 1024;

constexpr std::uint32_t MAX_CAPACITY = std::uint32_t{1} << 30;
static_assert(2u * MAX_CAPACITY > std::numeric_limits<std::int32_t>::max(),
              "the next doubling has no number");

struct growing_buffer {
    malloc_ptr<std::byte> bytes;
    std::int32_t capacity;
    std::int32_t used;
};

// Makes room for `capacity` bytes, keeping the data; without that room, all stays as it is.
bool grow(growing_buffer &buffer, std::uint32_t capacity)
{
    if (capacity > MAX_CAPACITY)
        return false;
    auto *grown = static_cast<std::byte *>(std::realloc(buffer.bytes.get(), capacity));
    if (grown == nullptr)
        return false;
    static_cast<void>(buffer.bytes.release());
    buffer.bytes.reset(grown);
    buffer.capacity = static_cast<std::int32_t>(capacity);
    return true;
}

// Whether the file says itself that it does not fit; then not a gigabyte is read first to find out.
bool known_too_large(std::FILE *file)
{
    struct stat status = {};
    return fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_size > static_cast<std::int64_t>(MAX_CAPACITY) - SPARE;
}

} // namespace

int read_file(const char *path, std::byte **buffer, std::uint64_t *size)
{
    *buffer = nullptr;
    *size = 0;
    file_ptr file(std::fopen(path, "rb"));
    if (!file) {
        attest_trace("Could not open %s\n", path);
        return -1;
    }

    growing_buffer data = {};
    auto grow_to = [&](std::uint32_t capacity) {
        if (grow(data, capacity))
            return true;
        attest_trace_as("read_file", "Could not allocate %u bytes to read %s\n", capacity, path);
        return false;
    };
    // A file that is too large for the counters fails as if it had been read, with the last doubling's line.
    if (!grow_to(known_too_large(file.get()) ? 2 * MAX_CAPACITY : SPARE))
        return -1;
    // Each read takes all the room; the buffer still doubles at the sizes at which reads of 1024 bytes would
    // double it.
    while (std::size_t count = std::fread(data.bytes.get() + data.used, 1,
                                          static_cast<std::size_t>(data.capacity - data.used), file.get())) {
        data.used += static_cast<std::int32_t>(count);
        if (data.capacity - data.used < SPARE && !grow_to(2 * static_cast<std::uint32_t>(data.capacity)))
            return -1;
    }

    // Zeroed once, here: whatever a read fills need not be zero before.
    std::memset(data.bytes.get() + data.used, 0, static_cast<std::size_t>(data.capacity - data.used));
    *size = static_cast<std::uint64_t>(data.used);
    attest_trace("bufsize = %lu\n", *size);
    *buffer = data.bytes.release();
    return 0;
}
