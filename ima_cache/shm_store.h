// Single words of memory that other processes see, or find after a process has died.
#pragma once

#include <atomic>

// Stores a word whole, after every store that stands before it and before every one that stands behind it. It
// is the compiler that must keep the order: a process that dies at an instruction has made all stores before
// it and none behind it, and who looks afterwards has been through the kernel for the lock.
template <class T>
void shm_store(T &word, T value)
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// Loads a word once: what has been checked is what is used.
template <class T>
T shm_load(T &word)
{
    return std::atomic_ref<T>(word).load(std::memory_order_relaxed);
}
