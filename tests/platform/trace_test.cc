#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>

#include "platform/status.h"
#include "tests/platform/run_directory_fixture.h"

using testing::ElementsAre;

namespace {

constexpr std::size_t RING_SIZE = TRACE_RING_SIZE_MIN;
constexpr std::size_t FILE_SIZE = TRACE_RING_HEADER_SIZE + RING_SIZE;

class trace_test : public run_directory_fixture {
protected:
    void TearDown() override
    {
        if (buffer != nullptr)
            trace_buffer_close(&buffer);
        if (mapped != nullptr)
            munmap(mapped, FILE_SIZE);
        run_directory_fixture::TearDown();
    }

    std::uint32_t open(std::size_t size = RING_SIZE) { return trace_buffer_init(&buffer, "test", 0, size); }
    void write(const std::string &text) { trace_log(nullptr, buffer, &site, "%s", text.c_str()); }

    // The ring as the file has it, to damage it; until the end of the test.
    std::byte *map()
    {
        unique_fd fd(::open(path("trace-test").c_str(), O_RDWR | O_CLOEXEC));
        mapped = mmap(nullptr, FILE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        EXPECT_NE(mapped, MAP_FAILED);
        return static_cast<std::byte *>(mapped);
    }

    trace_buffer *buffer = nullptr;
    void *mapped = nullptr;
    std::uint32_t site = TRACE_SITE_INIT;
};

TEST_F(trace_test, LinesComeBackAsWrittenAndInOrder)
{
    ASSERT_EQ(open(), 0u);
    errno = EDOM;
    trace_log(nullptr, buffer, &site, "%s(): rc=%d\n", "name", -5);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(site, 0u);
    write("");
    write("third, of 32 bytes, one whole cell");
    EXPECT_EQ(site, 2u);
    std::vector<trace_entry> found = entries();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_THAT(lines(), ElementsAre("name(): rc=-5\n", "", "third, of 32 bytes, one whole cell"));
    EXPECT_EQ(found[2].process, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(found[2].thread, static_cast<std::uint32_t>(gettid()));
    EXPECT_EQ(found[2].sequence, found[0].sequence + 2);
    EXPECT_LE(found[0].time_ns, found[2].time_ns);
}

TEST_F(trace_test, LongLineIsCutWithAMarkAndTheLongestIsNot)
{
    ASSERT_EQ(open(), 0u);
    write(std::string(TRACE_TEXT_MAX, 'a'));
    write(std::string(TRACE_TEXT_MAX + 1, 'b'));
    write(std::string(1 << 20, 'c'));
    std::vector<trace_entry> found = entries();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].text, std::string(TRACE_TEXT_MAX, 'a'));
    EXPECT_FALSE(found[0].cut);
    for (int i : {1, 2}) {
        EXPECT_TRUE(found[i].cut);
        EXPECT_EQ(found[i].text.size(), TRACE_TEXT_MAX);
        EXPECT_TRUE(found[i].text.ends_with("b [cut]") || found[i].text.ends_with("c [cut]"));
    }
}

TEST_F(trace_test, WrappedRingKeepsTheNewestLinesWhole)
{
    ASSERT_EQ(open(), 0u);
    // Lengths that make records start and end at every cell of the ring.
    for (int i = 0; i < 5000; ++i)
        write(std::to_string(i) + ":" + std::string(i % 97, static_cast<char>('a' + i % 26)));
    std::vector<std::string> found = lines();
    ASSERT_GT(found.size(), RING_SIZE / (97 + 64));
    for (std::size_t k = 0; k < found.size(); ++k) {
        int i = static_cast<int>(5000 - found.size() + k);
        EXPECT_EQ(found[k], std::to_string(i) + ":" + std::string(i % 97, static_cast<char>('a' + i % 26)));
    }
}

TEST_F(trace_test, NextStartContinuesBehindALineThatWasNeverFinished)
{
    ASSERT_EQ(open(), 0u);
    write("before");
    trace_buffer_close(&buffer);
    auto *header = reinterpret_cast<trace_ring_header *>(map());
    header->head += 5 * TRACE_CELL_SIZE; // what a process leaves that dies right after reserving
    header->sequence += 1;
    ASSERT_EQ(open(), 0u);
    write("after");

    ring_reader ring;
    ASSERT_EQ(ring.open(path("trace-test")), "");
    trace_entry entry;
    ASSERT_EQ(ring.next(entry), ring_read::entry);
    EXPECT_EQ(ring.next(entry), ring_read::unfinished);
    EXPECT_EQ(ring.next(entry), ring_read::unfinished);
    ring.skip_unfinished();
    ASSERT_EQ(ring.next(entry), ring_read::entry);
    EXPECT_EQ(entry.text, "after");
    EXPECT_EQ(entry.lost_before, 1u);
}

TEST_F(trace_test, TornLineIsNotShown)
{
    ASSERT_EQ(open(), 0u);
    write("first");
    write("this line will be torn in its second cell, as by a writer of the lap before");
    write("last");
    std::byte *memory = map();
    std::byte &inside = memory[TRACE_RING_HEADER_SIZE + 64 + 32 + 40];
    for (int bit = 0; bit < 8; ++bit) {
        inside ^= std::byte{1} << bit;
        EXPECT_THAT(lines(), ElementsAre("first", "last"));
        inside ^= std::byte{1} << bit;
    }
    EXPECT_EQ(lines().size(), 3u);
}

TEST_F(trace_test, CopyOfARecordInAnotherPlaceIsNotTakenForOne)
{
    ASSERT_EQ(open(), 0u);
    write("first");
    // What an earlier lap left: a whole record, checksum and all, inside one that is never finished.
    std::byte *memory = map();
    std::byte *real = memory + TRACE_RING_HEADER_SIZE;
    auto *header = reinterpret_cast<trace_ring_header *>(memory);
    std::memcpy(real + 64 + 32, real, 64);
    header->head += 96;
    write("last");
    EXPECT_THAT(lines(), ElementsAre("first", "last"));
}

TEST_F(trace_test, SecondLiveWriterIsRefused)
{
    ASSERT_EQ(open(), 0u);
    trace_buffer *second = buffer;
    EXPECT_EQ(trace_buffer_init(&second, "test", 0, RING_SIZE), platform_status_from_errno(EBUSY));
    EXPECT_EQ(second, nullptr);
    // Also with another size: a file that is in use is never set aside.
    EXPECT_EQ(trace_buffer_init(&second, "test", 0, 2 * RING_SIZE), platform_status_from_errno(EBUSY));
    EXPECT_EQ(trace_buffer_init(&second, "other", 0, RING_SIZE), 0u);
    EXPECT_EQ(trace_buffer_close(&second), 0u);
    EXPECT_EQ(trace_buffer_close(&second), platform_status_from_errno(EINVAL));
    EXPECT_EQ(trace_buffer_close(&buffer), 0u);
    EXPECT_EQ(buffer, nullptr);
    write("without a buffer");
    EXPECT_EQ(open(), 0u);
    EXPECT_TRUE(lines().empty());
}

TEST_F(trace_test, ArgumentsThatMakeNoRingAreRefused)
{
    EXPECT_EQ(trace_buffer_init(nullptr, "test", 0, RING_SIZE), platform_status_from_errno(EINVAL));
    for (const char *name : {"", "../test", "a b", "a\n"})
        EXPECT_EQ(trace_buffer_init(&buffer, name, 0, RING_SIZE), platform_status_from_errno(EINVAL)) << name;
    for (std::size_t size : {std::size_t{0}, RING_SIZE - 1, RING_SIZE + 32, RING_SIZE / 2, SIZE_MAX})
        EXPECT_EQ(open(size), platform_status_from_errno(EINVAL)) << size;
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(trace_test, RunDirectoryIsMadeOrItsAbsenceReported)
{
    setenv("ATTEST_RUN_DIR", path("new").c_str(), 1);
    ASSERT_EQ(open(), 0u);
    struct stat made {};
    ASSERT_EQ(stat(path("new").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 0777 & ~0750, 0u);
    ASSERT_EQ(stat(path("new/trace-test").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 0777 & ~0640, 0u);
    EXPECT_EQ(made.st_size, static_cast<off_t>(FILE_SIZE));

    trace_buffer *other = buffer;
    setenv("ATTEST_RUN_DIR", path("not/there").c_str(), 1);
    EXPECT_EQ(trace_buffer_init(&other, "test", 0, RING_SIZE), platform_status_from_errno(ENOENT));
    EXPECT_EQ(other, nullptr);
    std::ofstream(path("file")) << "x";
    setenv("ATTEST_RUN_DIR", path("file").c_str(), 1);
    EXPECT_EQ(trace_buffer_init(&other, "test", 0, RING_SIZE), platform_status_from_errno(ENOTDIR));
}

TEST_F(trace_test, ServiceManagersDirectoryIsUsedWithoutASetting)
{
    std::filesystem::create_directory(path("managed"));
    setenv("ATTEST_RUN_DIR", "", 1);
    setenv("RUNTIME_DIRECTORY", (path("managed") + ":/nonexistent").c_str(), 1);
    EXPECT_EQ(open(), 0u);
    unsetenv("RUNTIME_DIRECTORY");
    EXPECT_TRUE(std::filesystem::exists(path("managed/trace-test")));
}

TEST_F(trace_test, ForeignThingAtThePathIsSetAsideUntouchedButForADirectory)
{
    const std::string ring = path("trace-test");
    const std::vector<std::pair<const char *, std::function<void()>>> things = {
        {"text", [&] { std::ofstream(ring) << "not a ring"; }},
        {"right size, wrong bytes", [&] { std::ofstream(ring) << std::string(FILE_SIZE, 'x'); }},
        {"zeros of a start that was killed", [&] { std::ofstream(ring) << std::string(FILE_SIZE, '\0'); }},
        {"symbolic link",
         [&] {
             std::ofstream(path("target")) << "precious";
             std::filesystem::create_symlink(path("target"), ring);
         }},
        {"dangling link", [&] { std::filesystem::create_symlink(path("nowhere"), ring); }},
        {"hard link",
         [&] {
             std::ofstream(path("target")) << "";
             std::filesystem::create_hard_link(path("target"), ring);
         }},
        {"pipe", [&] { mkfifo(ring.c_str(), 0600); }},
        {"writable for all",
         [&] {
             std::ofstream(ring) << "";
             chmod(ring.c_str(), 0666);
         }},
        {"ring of another size",
         [&] {
             ASSERT_EQ(open(2 * RING_SIZE), 0u);
             trace_buffer_close(&buffer);
         }},
        {"ring with an impossible head",
         [&] {
             ASSERT_EQ(open(), 0u);
             trace_buffer_close(&buffer);
             reinterpret_cast<trace_ring_header *>(map())->head = 7;
         }},
    };
    for (const auto &[what, make] : things) {
        SCOPED_TRACE(what);
        make();
        ASSERT_EQ(open(), 0u);
        write("fresh");
        EXPECT_THAT(lines(), ElementsAre("fresh"));
        EXPECT_NE(std::filesystem::symlink_status(ring + ".foreign").type(),
                  std::filesystem::file_type::not_found);
        EXPECT_FALSE(std::filesystem::exists(path("nowhere")));
        if (std::filesystem::exists(path("target"))) {
            EXPECT_LE(std::filesystem::file_size(path("target")), 8u);
        }
        trace_buffer_close(&buffer);
        for (const auto &entry : std::filesystem::directory_iterator(directory))
            std::filesystem::remove(entry.path());
    }
    std::filesystem::create_directory(ring);
    EXPECT_EQ(open(), platform_status_from_errno(EISDIR)) << "a directory stays where it is";
    EXPECT_EQ(buffer, nullptr);
}

TEST_F(trace_test, ForkedChildWritesUnderItsOwnId)
{
    ASSERT_EQ(open(), 0u);
    write("parent");
    pid_t child = fork();
    if (child == 0) {
        write("child");
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    std::vector<trace_entry> found = entries();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1].process, static_cast<std::uint32_t>(child));
    EXPECT_EQ(found[1].thread, static_cast<std::uint32_t>(child));
}

TEST_F(trace_test, KilledWriterLeavesWholeLinesAndAFreeBuffer)
{
    for (int round = 0; round < 25; ++round) {
        int started[2];
        ASSERT_EQ(pipe(started), 0);
        pid_t child = fork();
        if (child == 0) {
            if (open() != 0)
                _exit(1);
            write("round " + std::to_string(round) + " x");
            if (::write(started[1], "x", 1) != 1)
                _exit(1);
            for (std::size_t i = 0;; ++i)
                write("round " + std::to_string(round) + " " + std::string(i % 300, 'x'));
        }
        ::close(started[1]);
        char byte = 0;
        ASSERT_EQ(read(started[0], &byte, 1), 1);
        ::close(started[0]);
        usleep(static_cast<useconds_t>(100 + 137 * round));
        kill(child, SIGKILL);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        std::vector<trace_entry> found = entries();
        ASSERT_FALSE(found.empty());
        EXPECT_EQ(found.back().process, static_cast<std::uint32_t>(child));
        for (const trace_entry &entry : found) {
            ASSERT_TRUE(entry.text.starts_with("round ")) << entry.text;
            std::size_t payload = entry.text.find(' ', 6);
            ASSERT_NE(payload, std::string::npos);
            ASSERT_EQ(entry.text.find_first_not_of('x', payload + 1), std::string::npos) << entry.text;
        }
    }
    ASSERT_EQ(open(), 0u);
    write("after all");
    EXPECT_EQ(lines().back(), "after all");
}

} // namespace
