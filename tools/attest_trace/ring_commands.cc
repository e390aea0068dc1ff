#include <array>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>

#include "tools/attest_trace/commands.h"
#include "tools/attest_trace/ring_reader.h"

namespace {

// How often following looks for new lines, and how many times it finds the same line unfinished before it
// takes its writer for dead.
constexpr timespec POLL_INTERVAL = {.tv_sec = 0, .tv_nsec = 50'000'000};
constexpr int UNFINISHED_POLLS = 20;

// An entry starts at the margin and nothing else does: further lines of its text are indented, and bytes that
// would move a terminal's cursor or turn its text round are shown as \xNN: controls, and all beyond ASCII, as
// a file's name, which any user can give, may hold any of them.
std::string printable(std::string_view text)
{
    text = text.substr(0, text.find_last_not_of('\n') + 1);
    std::string shown;
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            shown += "\n    ";
        } else if ((byte < 0x20 && c != '\t') || byte >= 0x7F) {
            std::array<char, 8> escaped{};
            std::snprintf(escaped.data(), escaped.size(), "\\x%02x", byte);
            shown += escaped.data();
        } else {
            shown += c;
        }
    }
    return shown;
}

void print_entry(const trace_entry &entry)
{
    if (entry.lost_before > 0)
        std::printf("*** %" PRIu32 " lines lost ***\n", entry.lost_before);
    auto seconds = static_cast<time_t>(entry.time_ns / 1'000'000'000);
    tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 40> time{};
    std::strftime(time.data(), time.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::printf("%s.%03" PRIu64 "Z %" PRIu32, time.data(), entry.time_ns % 1'000'000'000 / 1'000'000,
                entry.process);
    if (entry.thread != entry.process)
        std::printf("/%" PRIu32, entry.thread);
    std::printf(" %s\n", printable(entry.text).c_str());
}

std::string ring_path(const trace_place &place)
{
    return place.run_directory + "/" + TRACE_RING_FILE_PREFIX + place.buffer;
}

// Waits for the next look at the ring; true when it is time to end.
bool interrupted(const sigset_t &signals)
{
    std::fflush(stdout);
    return std::ferror(stdout) != 0 || sigtimedwait(&signals, nullptr, &POLL_INTERVAL) > 0;
}

sigset_t block_ending_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

} // namespace

int dump_lines(const trace_place &place)
{
    ring_reader ring;
    if (std::string problem = ring.open(ring_path(place)); !problem.empty())
        return complain(problem);
    // Lines that come meanwhile are left out: a busy agent could write faster than this prints.
    const std::uint64_t end = ring.head();
    trace_entry entry;
    for (;;) {
        ring_read result = ring.next(entry, end);
        if (result == ring_read::end)
            return EXIT_DONE;
        if (result == ring_read::entry)
            print_entry(entry);
        else
            ring.skip_unfinished();
    }
}

int follow_lines(const trace_place &place)
{
    const std::string path = ring_path(place);
    auto ring = std::make_unique<ring_reader>();
    if (std::string problem = ring->open(path); !problem.empty())
        return complain(problem);
    const sigset_t signals = block_ending_signals();
    int unfinished = 0;
    trace_entry entry;
    for (;;) {
        ring_read result = ring->next(entry);
        if (result == ring_read::entry) {
            print_entry(entry);
            unfinished = 0;
            continue;
        }
        if (result == ring_read::unfinished && ++unfinished > UNFINISHED_POLLS)
            ring->skip_unfinished();
        if (interrupted(signals))
            return EXIT_DONE;
        // An agent that found the file damaged has made a new one.
        if (result == ring_read::end && ring->replaced(path)) {
            auto renewed = std::make_unique<ring_reader>();
            if (renewed->open(path).empty())
                ring = std::move(renewed);
        }
    }
}
