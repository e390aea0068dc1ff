// The real program beside a process that traces: this one.
#include <array>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "tests/platform/run_directory_fixture.h"

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

namespace {

struct outcome {
    int status = -1;
    std::string output;
    std::string errors;
};

// The program as a child process with both its outputs.
class running_program {
public:
    explicit running_program(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), ATTEST_TRACE_PROGRAM);
        std::vector<char *> argv;
        argv.reserve(arguments.size() + 1);
        for (std::string &argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        std::array<int, 2> output{};
        std::array<int, 2> errors{};
        EXPECT_EQ(pipe2(output.data(), O_CLOEXEC) | pipe2(errors.data(), O_CLOEXEC), 0);
        if ((pid_ = fork()) < 0)
            std::abort(); // -1 is not to be killed: it stands for every process
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(output[1], STDOUT_FILENO);
            dup2(errors[1], STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(output[1]);
        close(errors[1]);
        output_.reset(output[0]);
        errors_.reset(errors[0]);
    }

    // Reads until the output holds `text`, which must come.
    void wait_for(const std::string &text)
    {
        while (result_.output.find(text) == std::string::npos)
            ASSERT_TRUE(read_part(output_, result_.output)) << text << " missing in " << result_.output;
    }

    void send(int signal) const { kill(pid_, signal); }
    // Returns once the program has stopped.
    void stop() const
    {
        int status = 0;
        kill(pid_, SIGSTOP);
        ASSERT_EQ(waitpid(pid_, &status, WUNTRACED), pid_);
    }

    outcome finish()
    {
        while (read_part(output_, result_.output)) {
        }
        while (read_part(errors_, result_.errors)) {
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        result_.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        return result_;
    }

private:
    static bool read_part(const unique_fd &fd, std::string &text)
    {
        std::array<char, 4096> part{};
        ssize_t size = read(fd.get(), part.data(), part.size());
        text.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        return size > 0;
    }

    pid_t pid_ = -1;
    unique_fd output_;
    unique_fd errors_;
    outcome result_;
};

outcome run(std::vector<std::string> arguments)
{
    return running_program(std::move(arguments)).finish();
}

std::size_t count(const std::string &text, const std::string &part)
{
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at)
        ++found;
    return found;
}

class attest_trace_test : public run_directory_fixture {
protected:
    void SetUp() override
    {
        run_directory_fixture::SetUp();
        ASSERT_EQ(trace_buffer_init(&buffer, "attestation", 0, TRACE_RING_SIZE_MIN), 0u);
        ASSERT_EQ(trace_flag_init(&root, "attest", nullptr, 0, 0), 0u);
        ASSERT_EQ(trace_flag_init(&agent, "agent", root, 0, 0), 0u);
    }
    void TearDown() override
    {
        trace_flag_destroy(&agent);
        trace_flag_destroy(&root);
        trace_buffer_close(&buffer);
        run_directory_fixture::TearDown();
    }
    void write(const std::string &text) { trace_log(agent, buffer, &site, "%s", text.c_str()); }

    trace_buffer *buffer = nullptr;
    trace_flag *root = nullptr;
    trace_flag *agent = nullptr;
    std::uint32_t site = TRACE_SITE_INIT;
};

TEST_F(attest_trace_test, DumpShowsEachRecordAsOneReadableEntry)
{
    write("first(): done\n");
    write("second(): \n 00FF\n2026-01-01T00:00:00.000Z 1 forged\n\n");
    write("third(): \033[2J\ttab \x7F \xC2\x9B"
          "2J");
    outcome dump = run({"dump"});
    EXPECT_EQ(dump.status, 0);
    EXPECT_EQ(dump.errors, "");
    const std::string head = "[0-9-]{10}T[0-9:]{8}[.][0-9]{3}Z " + std::to_string(getpid());
    EXPECT_THAT(dump.output,
                MatchesRegex(head + " first\\(\\): done\n" + head +
                             " second\\(\\): \n     00FF\n    2026-01-01T00:00:00[.]000Z 1 forged\n" + head +
                             " third\\(\\): \\\\x1b\\[2J\ttab \\\\x7f \\\\xc2\\\\x9b2J\n"));
    EXPECT_EQ(run({"--run-dir", directory, "--buffer=attestation", "dump"}).output, dump.output);
}

TEST_F(attest_trace_test, DumpSaysWhereLinesAreMissing)
{
    write("before");
    trace_buffer_close(&buffer);
    {
        std::fstream file(path("trace-attestation"), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offsetof(trace_ring_header, head)));
        std::uint64_t head = TRACE_RING_SIZE_MIN + 64 + 96; // reserved and never written
        file.write(reinterpret_cast<const char *>(&head), sizeof head);
    }
    ASSERT_EQ(trace_buffer_init(&buffer, "attestation", 0, TRACE_RING_SIZE_MIN), 0u);
    write("after");
    EXPECT_THAT(run({"dump"}).output, ContainsRegex("before\n[*]{3} 1 lines lost [*]{3}\n.* after\n"));
}

TEST_F(attest_trace_test, FollowGoesOnOverTheWrapUntilInterrupted)
{
    write("already there");
    running_program follow({"follow"});
    follow.wait_for("already there");
    for (int i = 0; i < 3; ++i) {
        // Less than a ring at a time, and it is read before the next comes: nothing may be lost.
        for (int line = 0; line < 500; ++line)
            write("round " + std::to_string(i) + " line " + std::to_string(line) + std::string(60, '.'));
        write("end of round " + std::to_string(i));
        follow.wait_for("end of round " + std::to_string(i));
    }
    follow.send(SIGINT);
    outcome result = follow.finish();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(count(result.output, "\n"), 1u + 3 * 501);
    EXPECT_THAT(result.output, Not(HasSubstr("lost")));
}

TEST_F(attest_trace_test, FollowSaysHowManyLinesItLost)
{
    write("already there");
    running_program follow({"follow"});
    follow.wait_for("already there");
    follow.stop();
    for (int line = 0; line < 3000; ++line)
        write("a line of one cell " + std::to_string(line));
    follow.send(SIGCONT);
    follow.wait_for("one cell 2999");
    follow.send(SIGTERM);
    outcome result = follow.finish();
    EXPECT_EQ(result.status, 0);
    const std::size_t kept = TRACE_RING_SIZE_MIN / 64;
    EXPECT_THAT(result.output, HasSubstr("*** " + std::to_string(3000 - kept) + " lines lost ***\n"));
    EXPECT_EQ(count(result.output, "one cell"), kept);
}

TEST_F(attest_trace_test, FollowGoesOnInABufferMadeAnew)
{
    write("in the old one");
    running_program follow({"follow"});
    follow.wait_for("in the old one");
    trace_buffer_close(&buffer);
    ASSERT_EQ(trace_buffer_init(&buffer, "attestation", 0, 2 * TRACE_RING_SIZE_MIN), 0u);
    write("in the new one");
    follow.wait_for("in the new one");
    follow.send(SIGINT);
    EXPECT_EQ(follow.finish().status, 0);
}

TEST_F(attest_trace_test, SwitchingTakesEffectInTheRunningProcess)
{
    EXPECT_EQ(run({"off", "agent"}).status, 0);
    EXPECT_FALSE(trace_flag_enabled(agent));
    EXPECT_TRUE(trace_flag_enabled(root));
    write("not wanted");
    EXPECT_EQ(run({"on", "agent"}).status, 0);
    write("wanted");
    EXPECT_THAT(lines("attestation"), testing::ElementsAre("wanted"));

    EXPECT_EQ(run({"off", "attest"}).status, 0);
    EXPECT_FALSE(trace_flag_enabled(agent));
    outcome shadowed = run({"on", "agent"});
    EXPECT_EQ(shadowed.status, 0);
    EXPECT_THAT(shadowed.errors, HasSubstr("a flag above it is off"));
    EXPECT_FALSE(trace_flag_enabled(agent));
    EXPECT_THAT(run({"flags"}).output, MatchesRegex("FLAG +PARENT +SWITCH +EFFECTIVE\n"
                                                    "attest +- +off +off\n"
                                                    "agent +attest +on +off\n"));
    EXPECT_EQ(run({"on", "attest"}).status, 0);
    EXPECT_TRUE(trace_flag_enabled(agent));
}

TEST_F(attest_trace_test, DeadAgentsFlagsAreListedButNotSwitched)
{
    // A process that dies with its flags registered leaves the table behind.
    std::filesystem::create_directory(path("dead"));
    std::filesystem::copy(path("trace_flags"), path("dead/trace_flags"));
    outcome list = run({"--run-dir", path("dead"), "flags"});
    EXPECT_EQ(list.status, 0);
    EXPECT_THAT(list.errors, HasSubstr("no agent is running"));
    EXPECT_THAT(list.output, HasSubstr("agent"));
    outcome off = run({"--run-dir", path("dead"), "off", "agent"});
    EXPECT_EQ(off.status, 1);
    EXPECT_THAT(off.errors, HasSubstr("no agent is running"));
}

TEST_F(attest_trace_test, WhatIsNotThereOrNotMeantIsOneLineAndAStatus)
{
    std::ofstream(path("trace-short")) << "x";
    std::ofstream(path("trace-foreign")) << std::string(TRACE_RING_HEADER_SIZE + TRACE_RING_SIZE_MIN, 'x');
    const struct {
        int status;
        std::vector<const char *> command_lines;
    } cases[] = {
        {1,
         {"on nosuchflag", "--buffer nosuchbuffer dump", "--buffer nosuchbuffer follow",
          "--buffer short dump", "--buffer foreign dump", "--run-dir /nonexistent dump",
          "--run-dir /nonexistent flags", "--run-dir /nonexistent on agent"}},
        {2,
         {"", "dumps", "dump x", "on", "on a b", "flags x", "--x", "-z", "--run-dir", "--help=x",
          "--buffer= dump", "--buffer=../x dump"}},
    };
    for (const auto &[status, command_lines] : cases) {
        for (const char *command_line : command_lines) {
            SCOPED_TRACE(command_line);
            std::istringstream words(command_line);
            outcome result = run({std::istream_iterator<std::string>(words), {}});
            EXPECT_EQ(result.status, status);
            EXPECT_THAT(result.errors, MatchesRegex("attest-trace: [^\n]+\n"));
            EXPECT_THAT(result.output, IsEmpty());
        }
    }
    outcome help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, HasSubstr("usage: attest-trace"));
}

} // namespace
