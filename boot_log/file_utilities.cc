#include "boot_log/file_utilities.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <sys/stat.h>

#include "agent/debug_trace.h"
#include "platform/owners.h"

namespace {

// One read, and the zero bytes that always follow the data.
constexpr std::int32_t READ_SIZE = 1024;

constexpr std::uint32_t MAX_CAPACITY = std::uint32_t{1} << 30;
static_assert(2u * MAX_CAPACITY > std::numeric_limits<std::int32_t>::max(),
              "the next doubling has no number");

struct growing_buffer {
    malloc_ptr<std::byte> bytes;
    std::int32_t capacity;
    std::int32_t used;
};

// Moves the data to a zero-filled buffer of `capacity` bytes; without one, the old buffer stays.
bool grow(growing_buffer &buffer, std::uint32_t capacity)
{
    if (capacity > MAX_CAPACITY)
        return false;
    malloc_ptr<std::byte> grown(static_cast<std::byte *>(std::calloc(capacity, 1)));
    if (!grown)
        return false;
    if (buffer.used > 0)
        std::memcpy(grown.get(), buffer.bytes.get(), static_cast<std::size_t>(buffer.used));
    buffer.bytes = std::move(grown);
    buffer.capacity = static_cast<std::int32_t>(capacity);
    return true;
}

// Whether the file says itself that it does not fit; then not a gigabyte is read first to find out.
bool known_too_large(std::FILE *file)
{
    struct stat status = {};
    return fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_size > static_cast<std::int64_t>(MAX_CAPACITY) - READ_SIZE;
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
    // A file beyond the counters is reported as the doubling that they cannot hold.
    if (!grow_to(known_too_large(file.get()) ? 2 * MAX_CAPACITY : READ_SIZE))
        return -1;
    while (std::size_t count = std::fread(data.bytes.get() + data.used, 1, READ_SIZE, file.get())) {
        data.used += static_cast<std::int32_t>(count);
        if (data.capacity - data.used < READ_SIZE && !grow_to(2 * static_cast<std::uint32_t>(data.capacity)))
            return -1;
    }

    *size = static_cast<std::uint64_t>(data.used);
    attest_trace("bufsize = %lu\n", *size);
    *buffer = data.bytes.release();
    return 0;
}
