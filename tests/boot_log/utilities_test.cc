#include <cerrno>
#include <fcntl.h>
#include <numeric>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "boot_log/file_utilities.h"
#include "boot_log/trace_dump.h"
#include "boot_log/uptime.h"
#include "tests/boot_log/boot_log_fixture.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/trace_capture.h"

namespace {

struct file_read {
    explicit file_read(const char *path) { result = read_file(path, &buffer, &size); }
    ~file_read() { std::free(buffer); }
    file_read(const file_read &) = delete;
    file_read &operator=(const file_read &) = delete;

    std::string bytes(std::size_t offset, std::size_t count) const
    {
        return {reinterpret_cast<const char *>(buffer) + offset, count};
    }
    bool refused() const { return result == -1 && buffer == nullptr && size == 0; }

    std::byte *buffer = reinterpret_cast<std::byte *>(1);
    std::uint64_t size = 1;
    int result;
};

class read_file_test : public boot_log_test {};

TEST_F(read_file_test, GivesTheDataAndAtLeast1024ZeroBytes)
{
    for (std::size_t size : {0, 1, 1023, 1024, 1025, 2048, 3000, 5000}) {
        std::string content(size, '\0');
        std::iota(content.begin(), content.end(), '\1');
        temporary_file file(content);
        trace_captured.clear();
        file_read read(file.path());
        ASSERT_EQ(read.result, 0);
        ASSERT_EQ(read.size, size);
        EXPECT_EQ(read.bytes(0, size), content);
        EXPECT_EQ(read.bytes(size, 1024), std::string(1024, '\0'));
        EXPECT_EQ(trace_captured, lines{"read_file(): bufsize = " + std::to_string(size) + "\n"});
    }
}

TEST_F(read_file_test, ReadsOnAfterShortReads)
{
    temporary_file name("");
    std::string path = std::string(name.path()) + ".fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::string content(5000, 'x');
    std::thread writer([&] {
        int fd = open(path.c_str(), O_WRONLY);
        for (std::size_t i = 0; i < content.size(); i += 250) {
            EXPECT_EQ(write(fd, content.data() + i, 250), 250);
            std::this_thread::yield();
        }
        close(fd);
    });
    file_read read(path.c_str());
    writer.join();
    unlink(path.c_str());
    ASSERT_EQ(read.size, content.size());
    EXPECT_EQ(read.bytes(0, read.size), content);
}

TEST_F(read_file_test, RefusesWhatCannotBeOpened)
{
    EXPECT_TRUE(file_read("/nowhere/log").refused());
    EXPECT_EQ(trace_captured, lines{"read_file(): Could not open /nowhere/log\n"});

    temporary_file forbidden("x");
    chmod(forbidden.path(), 0);
    bool was_root = geteuid() == 0 && seteuid(65534) == 0;
    EXPECT_TRUE(file_read(forbidden.path()).refused());
    EXPECT_TRUE(!was_root || seteuid(0) == 0);
}

TEST_F(read_file_test, TakesAReadErrorForTheEnd)
{
    file_read read("/tmp");
    EXPECT_EQ(read.result, 0);
    EXPECT_EQ(read.size, 0u);
}

TEST_F(read_file_test, RefusesMoreThanItsCountersHold)
{
    temporary_file sparse("");
    ASSERT_EQ(truncate(sparse.path(), (1 << 30) - 1023), 0);
    EXPECT_TRUE(file_read(sparse.path()).refused());
    EXPECT_EQ(trace_captured, lines{std::string("read_file(): Could not allocate 2147483648 bytes to read ") +
                                    sparse.path() + "\n"});
}

class dump_test : public boot_log_test {};

TEST_F(dump_test, DropsWhatIsNeitherPrintableNorWhiteSpace)
{
    print_asciistring("A\x01\x42\n", 4);
    print_asciistring("\x08\t\r\x0E\x1F ~\x7F\xFF", 9);
    EXPECT_EQ(trace_captured, (lines{"print_asciistring(): \n AB\n", "print_asciistring(): \n \t\r ~"}));
}

TEST_F(dump_test, CutsOnlyWithoutVerbose)
{
    std::string bytes(1025, 'A');
    auto dump_all = [&] {
        trace_captured.clear();
        print_hexstring(bytes.data(), 600);
        print_hexstring(bytes.data(), 512);
        print_asciistring(bytes.data(), 1025);
        print_asciistring(bytes.data(), 1024);
        return trace_captured;
    };
    const auto hex_of = [](std::size_t count) { return "h:" + hex(std::string(count, 'A')); };
    const auto text_of = [](std::size_t count) { return "t:" + std::string(count, 'A'); };
    EXPECT_EQ(dump_all(), traced({hex_of(600), hex_of(512), text_of(1025), text_of(1024)}));
    verbose = 0;
    EXPECT_EQ(dump_all(), traced({hex_of(512), "h:   [truncated]", hex_of(512), text_of(1024),
                                  "t:   [truncated]", text_of(1024)}));
}

class uptime_test : public boot_log_test {};

TEST_F(uptime_test, ReadsTheWholeSecondsOfTheFirstNumber)
{
    const std::pair<const char *, std::uint64_t> cases[] = {
        {"12345.67 99999.01\n", 12345}, {" 5000000000.99 1", 5000000000}, {"", 0}, {"soon", 0}};
    for (const auto &[content, seconds] : cases) {
        temporary_file file(content);
        uptime_file = file.path();
        trace_captured.clear();
        EXPECT_EQ(at_get_uptime_fm_sys(), seconds);
        EXPECT_EQ(trace_captured, lines{"at_get_uptime_fm_sys(): \nUptime " + std::to_string(seconds)});
    }
    uptime_file = "/nowhere/uptime";
    trace_captured.clear();
    EXPECT_EQ(at_get_uptime_fm_sys(), 0u);
    EXPECT_EQ(trace_captured, lines{"at_get_uptime_fm_sys(): failed to open /proc/uptime"});
    uptime_file = nullptr;
    EXPECT_GT(at_get_uptime_fm_sys(), 0u);
}

} // namespace
