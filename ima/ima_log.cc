#include "ima/ima_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <unistd.h>

#include "platform/status.h"

const char *ima_log_name = "/sys/kernel/security/ima/binary_runtime_measurements";

namespace {

// Some two thousand records; small enough to stay in the processor's cache between the kernel's copy and
// ours.
constexpr std::size_t BUFFER_SIZE = std::size_t{256} * 1024;

// Moves the unread bytes to the front of a buffer that holds at least `length`.
bool make_room(ima_log &log, std::size_t length)
{
    std::size_t unread = log.end - log.begin;
    if (length > log.capacity) {
        malloc_ptr<std::byte> larger(static_cast<std::byte *>(std::malloc(length)));
        if (!larger)
            return false;
        std::memcpy(larger.get(), log.buffer.get() + log.begin, unread);
        log.buffer = std::move(larger);
        log.capacity = length;
    } else {
        std::memmove(log.buffer.get(), log.buffer.get() + log.begin, unread);
    }
    log.begin = 0;
    log.end = unread;
    return true;
}

// Reads until `length` bytes are in the buffer or no more come. The kernel gives a page at a time, whatever
// is asked for.
void fill(ima_log &log, std::size_t length)
{
    while (log.end < length) {
        std::size_t room = std::min(log.capacity - log.end, BUFFER_SIZE);
        ssize_t got = read(log.file.get(), log.buffer.get() + log.end, room);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return;
        log.end += static_cast<std::size_t>(got);
        log.file_offset += static_cast<std::size_t>(got);
    }
}

} // namespace

std::uint32_t ima_log_open(ima_log &log, const char *path)
{
    log = ima_log();
    unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return platform_status_from_errno(errno);
    malloc_ptr<std::byte> buffer(static_cast<std::byte *>(std::malloc(BUFFER_SIZE)));
    if (!buffer)
        return platform_status_from_errno(ENOMEM);
    log.file = std::move(file);
    log.buffer = std::move(buffer);
    log.capacity = BUFFER_SIZE;
    return 0;
}

std::uint64_t ima_log_position(const ima_log &log)
{
    return log.file_offset - (log.end - log.begin);
}

bool ima_log_seek(ima_log &log, std::uint64_t offset)
{
    std::uint64_t buffered_from = log.file_offset - log.end;
    if (offset >= buffered_from && offset <= log.file_offset) {
        log.begin = static_cast<std::size_t>(offset - buffered_from);
        return true;
    }
    if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()))
        return false;
    if (lseek(log.file.get(), static_cast<off_t>(offset), SEEK_SET) < 0)
        return false;
    log.begin = log.end = 0;
    log.file_offset = offset;
    return true;
}

ima_log_read ima_log_take_slowly(ima_log &log, std::size_t length, std::span<const std::byte> &bytes)
{
    if (log.end - log.begin < length) {
        if (!make_room(log, length))
            return ima_log_read::no_memory;
        fill(log, length);
    }
    std::size_t given = std::min(log.end - log.begin, length);
    bytes = {log.buffer.get() + log.begin, given};
    log.begin += given;
    return given == length && length != 0 ? ima_log_read::whole : ima_log_read::cut;
}
