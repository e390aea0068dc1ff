// The event manager: one loop on one thread that runs every callback of the process.
//
// Watches and queued work belong to the manager's thread; only levm_stop and levm_post may be called from
// others.
#pragma once

#include <cstdint>
#include <memory>

struct levm;
struct levm_watch;

// A new event manager, or null. `name` is for the operator's line when that fails; `options` is 0.
levm *levm_create(const char *name, std::uint32_t options);

// Runs the loop on the calling thread until levm_stop. Feeds the service watchdog where one is asked for.
// 0, or the status that ended the loop.
std::uint32_t levm_block(levm *manager);

// Ends levm_block after the callback that runs now. From any thread and from a callback; also before
// levm_block, which then returns at once. For tests: the agent ends by a signal.
void levm_stop(levm *manager);

// Releases the manager and its watches. Null is allowed.
void levm_destroy(levm *manager);

// ---- for platform layers that live on the loop ----

// Calls `ready` with the epoll events that came (EPOLLIN, EPOLLRDHUP, ...) whenever `fd` has any of `events`.
// The descriptor stays the caller's and must outlive the watch: release the watch first, then close.
// Null when the loop cannot watch it.
levm_watch *levm_watch_fd(levm *manager, int fd, std::uint32_t events,
                          void (*ready)(void *context, std::uint32_t events), void *context);

// Calls `expired` once, `delay_ms` from now. The watch stays to be released, or armed again, by its owner.
levm_watch *levm_watch_timer(levm *manager, std::uint64_t delay_ms, void (*expired)(void *context),
                             void *context);

// Arms a timer watch anew, `delay_ms` from now. 0, or a platform status.
std::uint32_t levm_watch_timer_rearm(levm_watch *watch, std::uint64_t delay_ms);

// Ends a watch; its callback is not called any more. Allowed inside the callback itself. Null is allowed.
void levm_watch_release(levm_watch *watch);

struct levm_watch_deleter {
    void operator()(levm_watch *watch) const noexcept { levm_watch_release(watch); }
};
using levm_watch_ptr = std::unique_ptr<levm_watch, levm_watch_deleter>;

// Runs `work` on the loop's thread, in the order of the posts. From any thread; never runs it in the caller.
// Work still queued at levm_destroy is dropped without being called: `context` must not be owned by the post
// alone.
void levm_post(levm *manager, void (*work)(void *context), void *context);
