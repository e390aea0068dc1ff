#include <cstdio>
#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "agent/system_messages.h"
#include "platform/operator_log.h"
#include "platform/owners.h"

using testing::HasSubstr;

namespace {

// Stands where journald stands: in a mount namespace of the process that calls, so that nothing of the
// machine is touched. An empty descriptor when the kernel allows no namespace.
unique_fd private_journal(bool listening)
{
    const uid_t user = geteuid();
    if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
        return unique_fd();
    mkdir("/run/systemd", 0755);
    mkdir("/run/systemd/journal", 0755);
    unique_fd journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/run/systemd/journal/socket"};
    if (listening && bind(journal.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return unique_fd();
    return journal;
}

constexpr int NO_NAMESPACE = 77;

// What `log` sends, one entry a blank line apart: to the journal, or, without one, to stderr.
std::string logged(bool with_journal, const std::function<void()> &log, int &exit_code)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        unique_fd journal = private_journal(with_journal);
        if (!journal)
            _exit(NO_NAMESPACE);
        dup2(ends[1], STDERR_FILENO);
        log();
        char entry[8192];
        for (ssize_t size = 0;
             with_journal && (size = recv(journal.get(), entry, sizeof entry, MSG_DONTWAIT)) > 0;)
            dprintf(ends[1], "%.*s\n", static_cast<int>(size), entry);
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char part[4096];
    for (ssize_t size = 0; (size = read(ends[0], part, sizeof part)) > 0;)
        text.append(part, static_cast<std::size_t>(size));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return text;
}

#define LOGGED(text, with_journal, ...)                                                                      \
    int exit_code = 0;                                                                                       \
    const std::string text = logged(with_journal, __VA_ARGS__, exit_code);                                   \
    if (exit_code == NO_NAMESPACE)                                                                           \
        GTEST_SKIP() << "no mount namespace here";                                                           \
    ASSERT_EQ(exit_code, 0)

std::size_t count(const std::string &text, const std::string &part)
{
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at)
        ++found;
    return found;
}

TEST(message_log_test, JournalGetsEveryFieldByItself)
{
    LOGGED(entry, true, [] { raise_system_message(msg_rec_attestation_agent_init, "trace buffer\n"); });
    EXPECT_EQ(entry, "PRIORITY=3\n"
                     "SYSLOG_IDENTIFIER=attestation_agent\n"
                     "MESSAGE_ID=eecb9e8e9ee2408ebdd324571ca00004\n"
                     "MESSAGE_FACILITY=MGBL\n"
                     "MESSAGE_MNEMONIC=INIT\n"
                     "MESSAGE_SEVERITY=3\n"
                     "MESSAGE_CODE=0x1CA00004\n"
                     "MESSAGE_PROCESS=attestation_agent\n"
                     "MESSAGE=Initialization failed: trace buffer\n\n");
}

TEST(message_log_test, ArgumentCannotForgeFieldsOrLines)
{
    const char *hostile = "/x\nPRIORITY=0\nMESSAGE=all is well\033[2J";
    {
        LOGGED(entry, true,
               [&] { raise_system_message(msg_rec_attestation_agent_event_log_not_found, hostile); });
        // A value with line breaks travels with its length, not as lines.
        EXPECT_EQ(count(entry, "PRIORITY=3\n"), 1u);
        EXPECT_EQ(count(entry, "\nMESSAGE\n"), 1u);
    }
    LOGGED(line, false,
           [&] { raise_system_message(msg_rec_attestation_agent_event_log_not_found, hostile); });
    EXPECT_EQ(line,
              "attestation_agent: MGBL-3-EVENT_LOG_NOT_FOUND 0x1CA00000: Event log file failed to open: "
              "/x\\x0aPRIORITY=0\\x0aMESSAGE=all is well\\x1b[2J\n");
}

TEST(message_log_test, StderrGetsOneLineAMessageWhereThereIsNoJournal)
{
    LOGGED(lines, false, [] {
        raise_system_message(msg_rec_attestation_agent_init,
                             "Attestation Agent: Unable to instantiate levm\n");
        raise_system_message(msg_rec_attestation_agent_ima_disk_cache_full, std::string(10000, 'x').c_str());
        operator_log(LOG_ERR, "%s %d", "refused", 7);
    });
    EXPECT_EQ(count(lines, "\n"), 3u);
    EXPECT_THAT(lines,
                HasSubstr("attestation_agent: MGBL-3-INIT 0x1CA00004: Initialization failed: Attestation "
                          "Agent: Unable to instantiate levm\n"));
    EXPECT_THAT(lines,
                HasSubstr("\nattestation_agent: MGBL-2-IMA_DISK_CACHE_FULL 0x1CA00001: Not enough space."));
    EXPECT_THAT(lines, HasSubstr(": refused 7\n"));
}

TEST(message_log_test, FloodOfOneMessageIsHeldBackAndCounted)
{
    LOGGED(lines, false, [] {
        static std::uint64_t state[4] = {300};
        static const message_record record = {0, "flood %s", state, "process", "F", "FLOOD", 3, 0, 9};
        for (int i = 0; i < 1000; ++i)
            emit_errmsg(&record, 3, std::to_string(i).c_str());
        raise_system_message(msg_rec_attestation_agent_init, "another message passes");
        state[1] -= 301; // the interval is over
        emit_errmsg(&record, 3, "afterwards");
    });
    EXPECT_EQ(count(lines, "flood "), 65u);
    EXPECT_EQ(count(lines, "holding back the rest"), 1u);
    EXPECT_THAT(lines, HasSubstr("another message passes"));
    EXPECT_LT(lines.find("936 messages FLOOD were held back"), lines.find("flood afterwards"));
}

} // namespace
