// A reader-writer lock between processes that prefers writers, in a System V set of two semaphores:
//
//   semaphore 0, holders      readers add 1 each, the writer holds it at 1
//   semaphore 1, writer gate  not 0 while a writer waits or holds; readers wait until it is 0
//
// Every operation is made with SEM_UNDO: what a process holds when it dies, the kernel gives back. What the
// lock guards must therefore be readable after a holder's death at any instruction.
//
// Operations block without a limit; an interrupted one is taken up again. Errors go to stderr, by perror.
#pragma once

#include <sys/types.h>

inline constexpr unsigned short SEM_HOLDERS = 0;
inline constexpr unsigned short SEM_WRITER_GATE = 1;
inline constexpr int SEM_COUNT = 2;
inline constexpr int SEM_MODE = 0666;

// Each: 0; or -1, with the lock as it was before.
int at_sem_rdlock(int semid);
int at_sem_rdunlock(int semid);
int at_sem_wrlock(int semid);
int at_sem_wrunlock(int semid);

// Project id of the keys (ftok) of the sets.
inline constexpr int SEM_PROJECT = 1;

// The set for `key`, created unlocked if need be; whoever may create it at the same time must be kept out.
// Another user's set under the key is removed, or refused where this process may not remove it, and no other
// user can use this one afterwards: who can, can hold the agent up for ever. Its id, traced under
// `operation`; or -1, with a trace line that says what failed.
int at_sem_get(const char *operation, key_t key);
