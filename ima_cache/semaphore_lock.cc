#include "ima_cache/semaphore_lock.h"

#include <array>
#include <cstdio>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include "agent/debug_trace.h"
#include "ima_cache/file_io.h"

namespace {

// One atomic call: all of the operations or none.
template <std::size_t count>
int operate(int semid, std::array<sembuf, count> operations)
{
    int result = uninterrupted([&] { return semop(semid, operations.data(), operations.size()); });
    if (result < 0)
        std::perror("semop: ");
    return result;
}

constexpr sembuf add(unsigned short semaphore, short amount)
{
    return {semaphore, amount, SEM_UNDO};
}

constexpr sembuf wait_until_zero(unsigned short semaphore)
{
    return {semaphore, 0, SEM_UNDO};
}

// A set's creator keeps an owner's rights, whoever is its owner by now.
bool is_own(int semid, semid_ds &about)
{
    return semctl(semid, 0, IPC_STAT, &about) == 0 && about.sem_perm.uid == geteuid() &&
           about.sem_perm.cuid == geteuid();
}

// Any user can lay a set of any length under a key. Removing it takes CAP_SYS_ADMIN; what stays is refused.
void remove_foreign_set(key_t key)
{
    semid_ds about{};
    if (int semid = semget(key, 0, 0); semid >= 0 && !is_own(semid, about))
        semctl(semid, 0, IPC_RMID);
}

bool keep_from_others(int semid)
{
    semid_ds about{};
    if (!is_own(semid, about))
        return false;
    about.sem_perm.mode = 0600;
    return semctl(semid, 0, IPC_SET, &about) == 0;
}

int create_set(const char *operation, key_t key)
{
    int semid = semget(key, SEM_COUNT, IPC_CREAT | IPC_EXCL | SEM_MODE);
    if (semid < 0 || !keep_from_others(semid)) {
        attest_trace_as(operation, "semget: could not create semaphore\n");
        return -1;
    }
    attest_trace_as(operation, "create_shmht: Init the semaphores to 0 (unlocked)\n");
    for (unsigned short semaphore : {SEM_HOLDERS, SEM_WRITER_GATE}) {
        if (semctl(semid, semaphore, SETVAL, 0) < 0) {
            attest_trace_as(operation, "semctl failed");
            return -1;
        }
    }
    return semid;
}

} // namespace

int at_sem_rdlock(int semid)
{
    return operate<2>(semid, {add(SEM_HOLDERS, 1), wait_until_zero(SEM_WRITER_GATE)});
}

int at_sem_rdunlock(int semid)
{
    return operate<1>(semid, {add(SEM_HOLDERS, -1)});
}

int at_sem_wrlock(int semid)
{
    if (operate<1>(semid, {add(SEM_WRITER_GATE, 1)}) < 0)
        return -1;
    if (operate<2>(semid, {wait_until_zero(SEM_HOLDERS), add(SEM_HOLDERS, 1)}) < 0) {
        operate<1>(semid, {add(SEM_WRITER_GATE, -1)});
        return -1;
    }
    return 0;
}

int at_sem_wrunlock(int semid)
{
    return operate<2>(semid, {add(SEM_HOLDERS, -1), add(SEM_WRITER_GATE, -1)});
}

int at_sem_get(const char *operation, key_t key)
{
    remove_foreign_set(key);
    int semid = semget(key, SEM_COUNT, SEM_MODE);
    if (semid < 0) {
        semid = create_set(operation, key);
    } else if (!keep_from_others(semid)) {
        attest_trace_as(operation, "the semaphores are another user's\n");
        return -1;
    }
    if (semid >= 0)
        attest_trace_as(operation, "create_shmht: The id of the semaphore is: %d\n", semid);
    return semid;
}
