// Threads and signal handlers trace at once while a reader reads: whatever comes out must be lines that
// somebody wrote, each once.
#include <array>
#include <atomic>
#include <csignal>
#include <map>
#include <pthread.h>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <utility>

#include "tests/platform/run_directory_fixture.h"

namespace {

constexpr int THREADS = 4;
constexpr int LINES = 4000;

trace_buffer *storm_buffer;
std::uint32_t storm_site;
std::atomic<int> signal_lines;

// Every line says who wrote it, its number, and a payload that follows from both.
std::string payload(int writer, int number)
{
    return std::string(static_cast<std::size_t>(number * 7 + writer) % 150, static_cast<char>('a' + writer));
}

void on_signal(int)
{
    int number = signal_lines.fetch_add(1);
    trace_log(nullptr, storm_buffer, &storm_site, "w%d n%d %.*s", THREADS, number,
              (number * 7 + THREADS) % 150,
              "eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee"
              "eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee");
}

class trace_storm_test : public run_directory_fixture {
protected:
    void SetUp() override
    {
        run_directory_fixture::SetUp();
        storm_site = TRACE_SITE_INIT;
        signal_lines = 0;
        struct sigaction action {};
        action.sa_handler = on_signal;
        action.sa_flags = SA_RESTART;
        sigaction(SIGUSR1, &action, &previous);
    }
    void TearDown() override
    {
        trace_buffer_close(&storm_buffer);
        sigaction(SIGUSR1, &previous, nullptr);
        run_directory_fixture::TearDown();
    }

    // Runs the writers to their end while signals hit them.
    static void storm()
    {
        std::atomic<int> running = THREADS;
        std::array<std::thread, THREADS> writers;
        for (int writer = 0; writer < THREADS; ++writer) {
            writers[writer] = std::thread([&running, writer] {
                for (int number = 0; number < LINES; ++number) {
                    // However the machine schedules, signals keep pace with the lines.
                    while (signal_lines < number / 100)
                        usleep(20);
                    trace_log(nullptr, storm_buffer, &storm_site, "w%d n%d %s", writer, number,
                              payload(writer, number).c_str());
                }
                --running;
            });
        }
        for (int turn = 0; running > 0; ++turn) {
            pthread_kill(writers[turn % THREADS].native_handle(), SIGUSR1);
            usleep(20);
        }
        for (std::thread &writer : writers)
            writer.join();
    }

    void check(const trace_entry &entry)
    {
        int writer = -1;
        int number = -1;
        char separator = 0;
        std::istringstream text(entry.text);
        ASSERT_TRUE(text.get(separator) >> writer >> separator >> number && text.get() == ' ') << entry.text;
        ASSERT_EQ(entry.text, "w" + std::to_string(writer) + " n" + std::to_string(number) + " " +
                                  payload(writer, number));
        ASSERT_EQ(++seen[writer][number], 1) << entry.text;
        // A thread's own lines come in its order; handlers of several threads overtake each other.
        if (writer < THREADS) {
            ASSERT_GT(number, std::exchange(newest[writer], number));
        }
    }

    std::map<int, std::map<int, int>> seen;
    std::array<int, THREADS> newest = {-1, -1, -1, -1};
    struct sigaction previous {};
};

TEST_F(trace_storm_test, NoLineIsLostOrTornWhileTheRingHoldsThemAll)
{
    ASSERT_EQ(trace_buffer_init(&storm_buffer, "test", 0, std::size_t{1} << 23), 0u);
    storm();
    for (const trace_entry &entry : entries())
        ASSERT_NO_FATAL_FAILURE(check(entry));
    for (int writer = 0; writer < THREADS; ++writer)
        EXPECT_EQ(seen[writer].size(), static_cast<std::size_t>(LINES));
    EXPECT_GT(signal_lines, 0);
    EXPECT_EQ(seen[THREADS].size(), static_cast<std::size_t>(signal_lines));
    EXPECT_EQ(storm_site + 1, static_cast<std::uint32_t>(THREADS * LINES + signal_lines));
}

TEST_F(trace_storm_test, ReaderOfAWrappingRingSeesOnlyWholeLines)
{
    ASSERT_EQ(trace_buffer_init(&storm_buffer, "test", 0, TRACE_RING_SIZE_MIN), 0u);
    std::atomic<bool> done = false;
    std::size_t read = 0;
    std::thread reader([&] {
        ring_reader ring;
        ASSERT_EQ(ring.open(path("trace-test")), "");
        trace_entry entry;
        for (bool last_pass = false;;) {
            ring_read result = ring.next(entry);
            if (result == ring_read::entry) {
                ASSERT_NO_FATAL_FAILURE(check(entry));
                ++read;
            } else if (result == ring_read::end) {
                if (last_pass)
                    return;
                last_pass = done;
            } else if (last_pass) {
                ring.skip_unfinished(); // overtaken by a writer of an earlier lap
            } else {
                last_pass = done;
            }
        }
    });
    storm();
    done = true;
    reader.join();
    EXPECT_GT(read, TRACE_RING_SIZE_MIN / 256);
}

} // namespace
