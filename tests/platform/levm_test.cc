#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "platform/levm.h"
#include "platform/owners.h"

using testing::ElementsAre;

namespace {

class levm_test : public testing::Test {
public:
    void SetUp() override { ASSERT_NE(manager = levm_create("test", 0), nullptr); }
    void TearDown() override { levm_destroy(manager); }

    levm *manager = nullptr;
    std::vector<int> order;
};

// A descriptor that is readable and writable at once, with its watch.
struct watched_descriptor {
    levm_watch *watch = nullptr;
    levm_watch *victim = nullptr;
    levm *manager = nullptr;
    int calls = 0;
    unique_fd fd{eventfd(1, EFD_CLOEXEC)};
};

void stop(void *context)
{
    levm_stop(static_cast<levm *>(context));
}

TEST_F(levm_test, StopBeforeBlockAndFromAnotherThread)
{
    std::thread other([this] {
        usleep(5000);
        levm_stop(manager);
    });
    EXPECT_EQ(levm_block(manager), 0u);
    other.join();
    EXPECT_EQ(levm_block(manager), 0u); // stopped for good
}

TEST_F(levm_test, StopEndsTheLoopBeforeAnyFurtherCallback)
{
    static std::vector<int> *seen;
    seen = &order;
    levm_post(
        manager, [](void *) { seen->push_back(1); }, nullptr);
    levm_post(
        manager,
        [](void *context) {
            seen->push_back(2);
            levm_stop(static_cast<levm *>(context));
        },
        manager);
    levm_post(
        manager, [](void *) { seen->push_back(3); }, nullptr);
    watched_descriptor ready;
    levm_watch_fd(
        manager, ready.fd.get(), EPOLLIN, [](void *, std::uint32_t) { seen->push_back(4); }, nullptr);
    EXPECT_TRUE(seen->empty()); // never in the caller
    EXPECT_EQ(levm_block(manager), 0u);
    std::erase(order, 4); // allowed before the stop
    EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST_F(levm_test, PostsOfManyThreadsAllRunInEachThreadsOrder)
{
    constexpr int THREADS = 4;
    constexpr int POSTS = 500;
    struct post {
        levm_test *test;
        int thread, number;
    };
    static int newest[THREADS];
    static int total;
    std::fill_n(newest, THREADS, -1);
    total = 0;
    std::vector<post> posts;
    posts.reserve(std::size_t{THREADS} * POSTS);
    for (int i = 0; i < THREADS * POSTS; ++i)
        posts.push_back({this, i / POSTS, i % POSTS});
    auto work = [](void *context) {
        auto *item = static_cast<post *>(context);
        EXPECT_EQ(newest[item->thread] + 1, item->number);
        newest[item->thread] = item->number;
        if (++total == THREADS * POSTS)
            levm_stop(item->test->manager);
    };
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < POSTS; ++i)
                levm_post(manager, work, &posts[t * POSTS + i]);
        });
    }
    EXPECT_EQ(levm_block(manager), 0u);
    for (std::thread &thread : threads)
        thread.join();
}

TEST_F(levm_test, WatchMayBeReleasedInItsOwnCallbackAndInAnothers)
{
    watched_descriptor first;
    watched_descriptor second;
    auto ready = [](void *context, std::uint32_t events) {
        auto *self = static_cast<watched_descriptor *>(context);
        EXPECT_EQ(events, static_cast<std::uint32_t>(EPOLLOUT));
        ++self->calls;
        levm_watch_release(self->victim);
        levm_watch_release(self->watch);
        self->fd.reset();
        levm_post(self->manager, stop, self->manager);
    };
    for (watched_descriptor *one : {&first, &second}) {
        one->manager = manager;
        one->watch = levm_watch_fd(manager, one->fd.get(), EPOLLOUT, ready, one);
        ASSERT_NE(one->watch, nullptr);
    }
    first.victim = second.watch;
    second.victim = first.watch;
    EXPECT_EQ(levm_block(manager), 0u);
    EXPECT_EQ(first.calls + second.calls, 1);
}

TEST_F(levm_test, DescriptorThatCannotBeWatchedIsRefused)
{
    auto ready = [](void *, std::uint32_t) {};
    EXPECT_EQ(levm_watch_fd(manager, -1, EPOLLIN, ready, nullptr), nullptr);
    EXPECT_EQ(levm_watch_fd(manager, 100000, EPOLLIN, ready, nullptr), nullptr);
    levm_watch_release(nullptr);
}

TEST_F(levm_test, TimerFiresOnceAndAgainWhenArmedAnew)
{
    struct timer {
        levm_test *test;
        levm_watch *watch = nullptr;
        levm_watch *end = nullptr;
        int calls = 0;
    } timer{this};
    auto expired = [](void *context) {
        auto *self = static_cast<struct timer *>(context);
        if (++self->calls < 3)
            EXPECT_EQ(levm_watch_timer_rearm(self->watch, 1), 0u);
        else // time enough for a call too many
            self->end = levm_watch_timer(self->test->manager, 20, stop, self->test->manager);
    };
    timer.watch = levm_watch_timer(manager, 0, expired, &timer);
    auto never = [](void *) { FAIL(); };
    ASSERT_NE(levm_watch_timer(manager, UINT64_MAX, never, nullptr), nullptr); // left to levm_destroy
    EXPECT_EQ(levm_block(manager), 0u);
    EXPECT_EQ(timer.calls, 3);
    levm_watch_release(timer.watch);
    levm_watch_release(timer.end);
}

TEST_F(levm_test, WorkLeftAtDestroyIsDropped)
{
    levm_post(
        manager, [](void *) { FAIL(); }, nullptr);
    levm_destroy(nullptr);
}

TEST(levm_watchdog_test, ServiceWatchdogIsFed)
{
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string path = testing::TempDir() + "watchdog." + std::to_string(getpid());
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unique_fd service_manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(service_manager.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "20000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    levm *manager = levm_create("test", 0);
    ASSERT_NE(manager, nullptr);
    // Ends with the third sign of life; without them the test would not end.
    struct context {
        levm *manager;
        int signs = 0;
        int fd;
    } context{manager, 0, service_manager.get()};
    levm_watch *watch = levm_watch_fd(
        manager, service_manager.get(), EPOLLIN,
        [](void *user, std::uint32_t) {
            auto *self = static_cast<struct context *>(user);
            char text[64] = "";
            ASSERT_GT(recv(self->fd, text, sizeof text - 1, MSG_DONTWAIT), 0);
            EXPECT_STREQ(text, "WATCHDOG=1");
            if (++self->signs == 3)
                levm_stop(self->manager);
        },
        &context);
    EXPECT_EQ(levm_block(manager), 0u);
    levm_watch_release(watch);
    levm_destroy(manager);
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
        unsetenv(name);
    unlink(path.c_str());
}

} // namespace
