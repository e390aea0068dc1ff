// Works a cache, for tests that kill it and make its system calls fail.
//
//   cache_driver work TARGET    starts, appends until TARGET events are cached, and reads all of them.
//                               What fails is tried again in the same process, a few times.
//   cache_driver check MOST...  starts, reads all; the number of events must be one of those given; then
//                               appends more and reads all again.
//
// CACHE_FSIZE=BYTES[+] limits the size of files, for the first attempt or (+) for all.
//
// Exit status: 0, all of it was done; 3, the cache could not be used or filled; 1, it served something wrong,
// or something that `check` does not expect.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "ima_cache/cache_context.h"
#include "tests/ima_cache/source_list.h"

namespace {

constexpr std::uint64_t CHUNKS = 3; // in a block
constexpr int ATTEMPTS = 8;
enum : int { DONE = 0, WRONG = 1, FAILED = 3 };

// Seen in a trace of the system calls.
void mark(const char *what)
{
    static_cast<void>(access(what, F_OK));
}

void limit_files(rlim_t size)
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
}

// After the first failure, unless the limit is one for ever.
void lift_limit()
{
    const char *size = std::getenv("CACHE_FSIZE");
    if (size != nullptr && std::strchr(size, '+') == nullptr)
        limit_files(RLIM_INFINITY);
}

int read_all()
{
    served_events served = serve_all();
    if (served.problem.empty())
        return DONE;
    std::printf("%s\n", served.problem.c_str());
    return served.wrong ? WRONG : FAILED;
}

int fill(std::uint64_t target)
{
    std::uint64_t tail_offset = 0;
    std::uint64_t last_event = 0;
    for (int attempt = 0; attempt < ATTEMPTS;) {
        bool known = at_ima_cache_get_last_offset(&tail_offset, &last_event) == 1;
        if (known && last_event >= target) {
            mark("/the work is done");
            int all_read = read_all();
            if (all_read != FAILED)
                return all_read;
            ++attempt;
        } else if (!known || source_chunk(last_event + 1).add() != 1) {
            ++attempt;
            lift_limit();
        }
    }
    return read_all() == WRONG ? WRONG : FAILED;
}

int work(std::uint64_t target)
{
    if (const char *size = std::getenv("CACHE_FSIZE"); size != nullptr)
        limit_files(std::strtoul(size, nullptr, 10));
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (at_ima_cache_init() == 1)
            return fill(target);
        lift_limit();
    }
    return FAILED;
}

int check(const std::vector<std::uint64_t> &expected)
{
    if (at_ima_cache_init() != 1) {
        std::puts("the cache does not start");
        return WRONG;
    }
    std::uint64_t last_event = ima_cache_ctx.meta->last_event;
    if (std::ranges::find(expected, last_event) == expected.end()) {
        std::printf("%lu events are cached\n", static_cast<unsigned long>(last_event));
        return WRONG;
    }
    if (read_all() != DONE || fill(last_event + (CHUNKS + 1) * MAX_IMA_EVENTS) != DONE)
        return WRONG;
    return DONE;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::uint64_t> numbers;
    for (int i = 2; i < argc; ++i)
        numbers.push_back(std::strtoul(argv[i], nullptr, 10));
    if (numbers.empty())
        return 2;
    std::signal(SIGXFSZ, SIG_IGN);
    at_ima_cache_limits = {CHUNKS * MAX_IMA_EVENTS, 40'000};
    mark("/the work begins");
    return std::string(argv[1]) == "work" ? work(numbers[0]) : check(numbers);
}
