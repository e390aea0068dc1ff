// Owners: what is acquired is released on every path, and success is where an owner gives up what it holds.
#pragma once

#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

// Memory from malloc, for what ends up in a message or comes from a C library.
struct free_deleter {
    void operator()(void *memory) const noexcept { std::free(memory); }
};
template <class T>
using malloc_ptr = std::unique_ptr<T, free_deleter>;

// Runs `action` at the end of the scope unless dismissed.
template <class Action>
class scope_exit {
public:
    explicit scope_exit(Action action) noexcept : action_(std::move(action)) {}
    scope_exit(const scope_exit &) = delete;
    scope_exit &operator=(const scope_exit &) = delete;
    ~scope_exit()
    {
        if (armed_)
            action_();
    }
    void dismiss() noexcept { armed_ = false; }

private:
    Action action_;
    bool armed_ = true;
};

// A file descriptor; -1 is none.
class unique_fd {
public:
    explicit unique_fd(int fd = -1) noexcept : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};
