#include "platform/levm.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <sys/eventfd.h>
#include <syslog.h>
#include <systemd/sd-event.h>
#include <utility>
#include <vector>

#include "platform/operator_log.h"
#include "platform/owners.h"
#include "platform/status.h"

namespace {

struct event_deleter {
    void operator()(sd_event *event) const noexcept { sd_event_unref(event); }
};
struct source_deleter {
    void operator()(sd_event_source *source) const noexcept { sd_event_source_disable_unref(source); }
};
using event_ptr = std::unique_ptr<sd_event, event_deleter>;
using source_ptr = std::unique_ptr<sd_event_source, source_deleter>;

struct posted_work {
    void (*work)(void *context);
    void *context;
};

// More than ever waits: the server posts one item at a time.
constexpr std::size_t ROOM_FOR_WORK = 64;

// Timers fire at most this late for the sake of being merged with others; the library's default is 250 ms.
constexpr std::uint64_t TIMER_ACCURACY_US = 1000;
constexpr std::uint64_t US_PER_MS = 1000;
// Keeps the conversion to microseconds and the library's addition of the present time in range: 30,000 years.
constexpr std::uint64_t LONGEST_DELAY_MS = std::uint64_t{1} << 50;

std::uint64_t delay_us(std::uint64_t delay_ms)
{
    return (delay_ms < LONGEST_DELAY_MS ? delay_ms : LONGEST_DELAY_MS) * US_PER_MS;
}

} // namespace

struct levm_watch {
    source_ptr source;
    void (*ready)(void *context, std::uint32_t events) = nullptr; // of a descriptor
    void (*expired)(void *context) = nullptr;                     // of a timer
    void *context = nullptr;
    levm *manager = nullptr;
    levm_watch *previous = nullptr; // the manager's list, for levm_destroy
    levm_watch *next = nullptr;
};

struct levm {
    event_ptr event;
    unique_fd wake; // an eventfd: there is posted work, or a reason to look at `stopped`
    source_ptr wake_source;
    std::atomic<bool> stopped = false;
    levm_watch *watches = nullptr;
    std::mutex lock; // of `posted`
    std::vector<posted_work> posted;
    std::vector<posted_work> running; // a batch of it; both keep their room, so that posting needs no memory
};

namespace {

void wake_loop(levm *manager)
{
    eventfd_write(manager->wake.get(), 1);
}

// Runs what was posted until now, not what these callbacks post: descriptors get their turn in between.
int run_posted_work(sd_event_source *, int fd, std::uint32_t, void *userdata)
{
    auto *manager = static_cast<levm *>(userdata);
    eventfd_t ignored = 0;
    eventfd_read(fd, &ignored);
    manager->running.clear();
    {
        std::lock_guard guard(manager->lock);
        manager->running.swap(manager->posted);
    }
    for (const posted_work &item : manager->running) {
        if (manager->stopped.load())
            break;
        item.work(item.context);
    }
    return 0;
}

// The callbacks below may release their watch: nothing of it is touched after they were called.
int on_descriptor(sd_event_source *, int, std::uint32_t events, void *userdata)
{
    auto *watch = static_cast<levm_watch *>(userdata);
    watch->ready(watch->context, events);
    return 0;
}

int on_timer(sd_event_source *, std::uint64_t, void *userdata)
{
    auto *watch = static_cast<levm_watch *>(userdata);
    watch->expired(watch->context);
    return 0;
}

// noexcept: out of memory here, beyond the room that there is, ends the process, for work that is silently
// not run would leave its caller waiting for ever.
void queue_work(levm &manager, posted_work item) noexcept
{
    std::lock_guard guard(manager.lock);
    manager.posted.push_back(item);
}

levm_watch *add_to_list(levm *manager, std::unique_ptr<levm_watch> watch)
{
    watch->manager = manager;
    watch->next = manager->watches;
    if (manager->watches != nullptr)
        manager->watches->previous = watch.get();
    manager->watches = watch.get();
    return watch.release();
}

int open_loop(levm &manager)
{
    try {
        for (std::vector<posted_work> *work : {&manager.posted, &manager.running})
            work->reserve(ROOM_FOR_WORK);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    sd_event *event = nullptr;
    if (int result = sd_event_new(&event); result < 0)
        return result;
    manager.event.reset(event);
    manager.wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!manager.wake)
        return -errno;
    sd_event_source *source = nullptr;
    int result = sd_event_add_io(event, &source, manager.wake.get(), EPOLLIN, run_posted_work, &manager);
    if (result < 0)
        return result;
    manager.wake_source.reset(source);
    return sd_event_set_watchdog(event, 1); // does nothing unless the service manager asks for it
}

} // namespace

levm *levm_create(const char *name, std::uint32_t /*options*/)
{
    auto manager = std::unique_ptr<levm>(new (std::nothrow) levm);
    if (!manager)
        return nullptr;
    if (int result = open_loop(*manager); result < 0) {
        operator_log(LOG_ERR, "event manager %s: %s", name,
                     status_strerror(platform_status_from_errno(-result)));
        return nullptr;
    }
    return manager.release();
}

std::uint32_t levm_block(levm *manager)
{
    // sd_event_run dispatches one callback, so that a stop takes effect right after the callback that asked.
    while (!manager->stopped.load()) {
        if (int result = sd_event_run(manager->event.get(), UINT64_MAX); result < 0)
            return platform_status_from_errno(-result);
    }
    return 0;
}

void levm_stop(levm *manager)
{
    manager->stopped.store(true);
    wake_loop(manager);
}

void levm_destroy(levm *manager)
{
    if (manager == nullptr)
        return;
    for (levm_watch *watch = manager->watches; watch != nullptr;)
        delete std::exchange(watch, watch->next);
    delete manager;
}

levm_watch *levm_watch_fd(levm *manager, int fd, std::uint32_t events,
                          void (*ready)(void *context, std::uint32_t events), void *context)
{
    auto watch = std::unique_ptr<levm_watch>(new (std::nothrow) levm_watch);
    if (!watch)
        return nullptr;
    sd_event_source *source = nullptr;
    if (sd_event_add_io(manager->event.get(), &source, fd, events, on_descriptor, watch.get()) < 0)
        return nullptr;
    watch->source.reset(source);
    watch->ready = ready;
    watch->context = context;
    return add_to_list(manager, std::move(watch));
}

levm_watch *levm_watch_timer(levm *manager, std::uint64_t delay_ms, void (*expired)(void *context),
                             void *context)
{
    auto watch = std::unique_ptr<levm_watch>(new (std::nothrow) levm_watch);
    if (!watch)
        return nullptr;
    sd_event_source *source = nullptr;
    if (sd_event_add_time_relative(manager->event.get(), &source, CLOCK_MONOTONIC, delay_us(delay_ms),
                                   TIMER_ACCURACY_US, on_timer, watch.get()) < 0)
        return nullptr;
    watch->source.reset(source);
    watch->expired = expired;
    watch->context = context;
    return add_to_list(manager, std::move(watch));
}

std::uint32_t levm_watch_timer_rearm(levm_watch *watch, std::uint64_t delay_ms)
{
    int result = sd_event_source_set_time_relative(watch->source.get(), delay_us(delay_ms));
    if (result >= 0)
        result = sd_event_source_set_enabled(watch->source.get(), SD_EVENT_ONESHOT);
    return result < 0 ? platform_status_from_errno(-result) : 0;
}

void levm_watch_release(levm_watch *watch)
{
    if (watch == nullptr)
        return;
    levm_watch *&link = watch->previous != nullptr ? watch->previous->next : watch->manager->watches;
    link = watch->next;
    if (watch->next != nullptr)
        watch->next->previous = watch->previous;
    delete watch;
}

void levm_post(levm *manager, void (*work)(void *context), void *context)
{
    queue_work(*manager, {work, context});
    wake_loop(manager);
}
