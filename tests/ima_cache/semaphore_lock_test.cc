// Who waits for whom, what a death gives back, what an interruption does.
#include "ima_cache/semaphore_lock.h"

#include <csignal>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Lock : public testing::Test {
protected:
    Lock() : semid(semget(IPC_PRIVATE, SEM_COUNT, 0600))
    {
        static void *const shared =
            mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        signals_taken = static_cast<volatile int *>(shared);
        *signals_taken = 0;
    }
    ~Lock() override { semctl(semid, 0, IPC_RMID); }

    int value(int semaphore) const { return semctl(semid, semaphore, GETVAL); }
    // Processes that wait for the semaphore to grow or to become zero.
    int waiters(int semaphore) const
    {
        return semctl(semid, semaphore, GETNCNT) + semctl(semid, semaphore, GETZCNT);
    }

    // A child that takes the lock, says so, and holds it until it is killed.
    pid_t holder(int (*take)(int))
    {
        pid_t child = fork();
        if (child < 0)
            std::abort(); // -1 is not to be killed: it stands for every process
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::signal(SIGUSR1, [](int) { *signals_taken = 1; });
            if (take(semid) != 0)
                _exit(1);
            for (;;)
                pause();
        }
        children.push_back(child);
        return child;
    }
    void await(auto condition) const
    {
        for (int i = 0; i < 10000 && !condition(); ++i)
            usleep(1000);
        EXPECT_TRUE(condition());
    }
    void kill_and_wait(pid_t child)
    {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        std::erase(children, child);
    }
    void TearDown() override
    {
        for (pid_t child : std::vector<pid_t>(children))
            kill_and_wait(child);
    }

    int semid;
    std::vector<pid_t> children;
    static inline volatile int *signals_taken; // by the children
};

TEST_F(Lock, LetsNoReaderPassAWaitingWriter)
{
    pid_t reader = holder(at_sem_rdlock);
    await([&] { return value(SEM_HOLDERS) == 1; });
    pid_t writer = holder(at_sem_wrlock);
    await([&] { return waiters(SEM_HOLDERS) == 1; });
    holder(at_sem_rdlock);
    await([&] { return waiters(SEM_WRITER_GATE) == 1; });
    kill_and_wait(reader); // by its death it lets the writer in, not the second reader
    await([&] { return value(SEM_HOLDERS) == 1 && waiters(SEM_HOLDERS) == 0; });
    EXPECT_EQ(waiters(SEM_WRITER_GATE), 1);
    kill_and_wait(writer);
    await([&] { return value(SEM_HOLDERS) == 1 && value(SEM_WRITER_GATE) == 0; });
}

TEST_F(Lock, IsNotAnnouncedAnyMoreWhenAWaitingWriterDies)
{
    holder(at_sem_rdlock);
    await([&] { return value(SEM_HOLDERS) == 1; });
    pid_t writer = holder(at_sem_wrlock);
    await([&] { return waiters(SEM_HOLDERS) == 1; });
    kill_and_wait(writer);
    EXPECT_EQ(value(SEM_WRITER_GATE), 0);
    EXPECT_EQ(at_sem_rdlock(semid), 0);
    EXPECT_EQ(at_sem_rdunlock(semid), 0);
}

TEST_F(Lock, IsNotGivenUpByASignal)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer holds signals back until a call that it knows";
#endif
    ASSERT_EQ(at_sem_rdlock(semid), 0);
    pid_t writer = holder(at_sem_wrlock);
    await([&] { return waiters(SEM_HOLDERS) == 1; });
    kill(writer, SIGUSR1);
    // The handler runs when the call has left the queue.
    await([&] { return *signals_taken == 1 && waiters(SEM_HOLDERS) == 1; });
    ASSERT_EQ(at_sem_rdunlock(semid), 0);
    await([&] { return value(SEM_HOLDERS) == 1; });
    EXPECT_EQ(waitpid(writer, nullptr, WNOHANG), 0);
}

// From here on the kernel refuses every semaphore call of two operations to this process.
void refuse_double_operations()
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_semop, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_semtimedop, 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 2, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSPC),
    };
    sock_fprog filter = {std::size(program), program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        _exit(2);
}

TEST_F(Lock, IsNotAnnouncedWhenItCannotBeTaken)
{
    testing::internal::CaptureStderr();
    pid_t child = fork();
    if (child == 0) {
        refuse_double_operations();
        _exit(at_sem_wrlock(semid) == -1 && value(SEM_WRITER_GATE) == 0 && value(SEM_HOLDERS) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "semop: : No space left on device\n");
}

} // namespace
