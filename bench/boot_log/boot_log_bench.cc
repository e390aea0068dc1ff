// A boot log of 10,000 events, from the file to the message with tracing off, beside copying its digests and
// data into as many heap buffers.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <span>
#include <string>
#include <unistd.h>
#include <vector>

#include "agent/debug_trace.h"
#include "bench/ratio.h"
#include "boot_log/event_log_reader.h"
#include "platform/owners.h"

namespace {

constexpr std::uint32_t EVENTS = 10000;
constexpr std::size_t DATA_SIZE = 64; // about the median in recorded logs

trace_flag off{};

void append(std::vector<std::byte> &log, const void *bytes, std::size_t length)
{
    const auto *begin = static_cast<const std::byte *>(bytes);
    log.insert(log.end(), begin, begin + length);
}

void append_number(std::vector<std::byte> &log, std::uint32_t value, std::size_t size = 4)
{
    append(log, &value, size);
}

// The log, and where in it the digests and data are.
struct sample {
    std::vector<std::byte> log;
    std::vector<std::pair<std::size_t, std::size_t>> parts;

    void part(std::size_t length)
    {
        parts.emplace_back(log.size(), length);
        log.resize(log.size() + length, std::byte{0x5A});
    }
};

sample make_sample()
{
    sample made;
    for (std::uint32_t i = 0; i < EVENTS; ++i) {
        append_number(made.log, i % 24);
        append_number(made.log, 0x0000000D);
        append_number(made.log, 2);
        append_number(made.log, 0x0004, 2);
        made.part(20);
        append_number(made.log, 0x000B, 2);
        made.part(32);
        append_number(made.log, DATA_SIZE);
        made.part(DATA_SIZE);
    }
    return made;
}

const sample &log_sample()
{
    static const sample made = make_sample();
    return made;
}

void read_log(benchmark::State &state)
{
    static char path[] = "/tmp/boot_log_bench_XXXXXX";
    std::memset(path + sizeof path - 7, 'X', 6); // a run before has filled them in
    unique_fd file(mkstemp(path));
    scope_exit remove([&] { unlink(path); });
    const std::vector<std::byte> &log = log_sample().log;
    if (write(file.get(), log.data(), log.size()) != static_cast<ssize_t>(log.size())) {
        state.SkipWithError("cannot write the log");
        return;
    }
    sb_log_name = path;
    attest_dbg_flag_agent = &off;
    while (state.KeepRunning()) {
        NodeBootIntegrityLog message;
        if (attestation_get_local_sb_event_logs(&message) != ATTEST_OK || message.events.count != EVENTS)
            state.SkipWithError("the log was not read");
        message_release(message);
    }
}

void copy_parts(benchmark::State &state)
{
    const sample &made = log_sample();
    while (state.KeepRunning()) {
        auto *copies = static_cast<message_bytes *>(std::malloc(made.parts.size() * sizeof(message_bytes)));
        message_bytes *end = copies;
        for (auto [offset, length] : made.parts) {
            end->length = length;
            end->data = static_cast<std::uint8_t *>(std::malloc(length));
            std::memcpy(end->data, made.log.data() + offset, length);
            ++end;
        }
        benchmark::ClobberMemory();
        while (end > copies)
            std::free((--end)->data);
        std::free(copies);
    }
}

RATIO_BENCHMARK("boot log of 10,000 events into the message", 3.0, read_log, copy_parts);

} // namespace

// Memory that is freed stays with the process here. As it comes, the C library gives it back to the kernel
// after one side's rounds and keeps it after the other's, and the page faults are then most of the time.
int main(int argc, char **argv)
{
    mallopt(M_TRIM_THRESHOLD, 1 << 28);
    mallopt(M_MMAP_THRESHOLD, 1 << 25);
    return ratio_main(argc, argv);
}
