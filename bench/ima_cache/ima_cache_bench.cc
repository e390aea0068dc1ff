// The cache beside the least that its work costs, and beside SQLite. On a disk of its own:
//
//   tests/support/own_machine --disk DIRECTORY build/release/bench/ima_cache/ima_cache_bench
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "bench/ima_cache/bench_cache.h"
#include "bench/ima_cache/yardsticks.h"
#include "bench/ratio.h"
#include "ima_cache/cache_block.h"

namespace {

namespace fs = std::filesystem;

const std::string scratch = "/harddisk:/scratch";

// ---- what our side did, for the rates ----

struct job_rate {
    const char *what = "";
    std::uint64_t events = 0; // of one run
    std::uint64_t bytes = 0;
    std::vector<double> seconds{};
};
job_rate fill_rate{.what = "filling a block"};
job_rate read_rate{.what = "reading a sealed block"};
job_rate start_rate{.what = "starting over 20 sealed blocks"};

class timed {
public:
    explicit timed(job_rate &rate) : rate_(rate) {}
    ~timed() { rate_.seconds.push_back(std::chrono::duration<double>(clock::now() - begin_).count()); }
    timed(const timed &) = delete;
    timed &operator=(const timed &) = delete;

private:
    using clock = std::chrono::steady_clock;
    job_rate &rate_;
    clock::time_point begin_ = clock::now();
};

void print(job_rate &rate)
{
    if (rate.seconds.empty())
        return;
    std::ranges::sort(rate.seconds);
    double seconds = rate.seconds[rate.seconds.size() / 2];
    std::printf("%s: %.3f s, %.0f events/s, %.1f MB/s of %lu bytes\n", rate.what, seconds,
                static_cast<double>(rate.events) / seconds, static_cast<double>(rate.bytes) / seconds / 1e6,
                static_cast<unsigned long>(rate.bytes));
}

// ---- filling a block ----

void fill_block(benchmark::State &state)
{
    while (state.KeepRunning()) {
        state.PauseTiming();
        start_cache();
        state.ResumeTiming();
        timed watch(fill_rate);
        for (std::uint64_t i = 0; i < CHUNKS_IN_BLOCK; ++i)
            usual_chunk().add();
    }
    fill_rate.events = IMA_CACHE_BLOCK_EVENTS;
    fill_rate.bytes = fs::file_size(bench_block_path(0));
}

template <void (*yardstick)(bench_chunk &, const std::string &)>
void fill_file(benchmark::State &state)
{
    while (state.KeepRunning()) {
        state.PauseTiming();
        fs::remove(scratch);
        state.ResumeTiming();
        yardstick(usual_chunk(), scratch);
    }
    fs::remove(scratch);
}

RATIO_BENCHMARK("fill a block: two hashes, encode, write", 1.25, fill_block,
                fill_file<hash_encode_and_write>);
RATIO_BENCHMARK("fill a block: SQLite", 1.0, fill_block, fill_file<fill_sqlite>);

// ---- appending behind many blocks ----

// A block of a few chunks, so that 150 of them are there soon: what comes before it is what counts.
constexpr std::uint64_t FEW = 10;

struct place {
    ima_cache_meta meta{};
    std::string directory;
};
place first_place;
place late_place;
std::array<sha256_digest, IMA_CACHE_MAX_BLOCKS> late_chain;

void name_directory(ima_cache_meta &meta, const std::string &directory)
{
    std::snprintf(meta.cache_dir, sizeof meta.cache_dir, "%s", directory.c_str());
}

void copy_cache(place &to, const std::string &name)
{
    to.directory = IMA_CACHE_ROOT + std::string("places_") + name;
    fs::copy(ima_cache_ctx.meta->cache_dir, to.directory);
    to.meta = *ima_cache_ctx.meta;
    name_directory(to.meta, to.directory);
}

void make_places()
{
    if (!late_place.directory.empty())
        return;
    start_cache(FEW);
    while (ima_cache_ctx.meta->cur_block < 1)
        usual_chunk().add();
    copy_cache(first_place, "first");
    while (ima_cache_ctx.meta->cur_block < 150)
        usual_chunk().add();
    copy_cache(late_place, "late");
    late_chain = ima_cache_ctx.block_hash_chain;
}

template <place &at>
void append_at(benchmark::State &state)
{
    make_places();
    while (state.KeepRunning()) {
        state.PauseTiming();
        start_cache(FEW);
        *ima_cache_ctx.meta = at.meta;
        ima_cache_ctx.block_hash_chain = late_chain;
        remove_block(bench_block_path(at.meta.cur_block).c_str());
        state.ResumeTiming();
        for (std::uint64_t i = 0; i < FEW; ++i)
            usual_chunk().add();
    }
}

RATIO_BENCHMARK("append: block 150 against block 1", 1.05, append_at<late_place>, append_at<first_place>);

// ---- reading ----

std::vector<std::byte> sealed_block;

void make_sealed_block()
{
    static bool made = false;
    start_cache();
    if (!made) {
        for (std::uint64_t i = 0; i < CHUNKS_IN_BLOCK; ++i)
            usual_chunk().add();
        fs::copy_file(bench_block_path(0), "/harddisk:/sealed_block");
        std::ifstream file("/harddisk:/sealed_block", std::ios::binary);
        std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
        sealed_block.resize(bytes.size());
        std::memcpy(sealed_block.data(), bytes.data(), bytes.size());
        made = true;
        return;
    }
    fs::copy_file("/harddisk:/sealed_block", bench_block_path(0));
    require(at_ima_cache_init() == 1 && ima_cache_ctx.meta->last_event == IMA_CACHE_BLOCK_EVENTS,
            "no sealed block");
}

void read_block(benchmark::State &state)
{
    make_sealed_block();
    while (state.KeepRunning()) {
        timed watch(read_rate);
        ima_cache_cursor at{};
        std::uint64_t events = 0;
        owned_message<IMACacheBlock> message;
        std::int32_t result = at_ima_cache_read_start(1, message.get(), &at.block, &at.offset, &at.fd);
        for (; result == 1; result = at_ima_cache_read_next(message.get(), &at.block, &at.offset, &at.fd)) {
            events += message->events.count;
            message_release(*message);
        }
        at_ima_cache_read_done(&at.block, &at.offset, &at.fd);
        require(events == IMA_CACHE_BLOCK_EVENTS, "not all events are read");
    }
    read_rate.events = IMA_CACHE_BLOCK_EVENTS;
    read_rate.bytes = sealed_block.size();
}

void hash_and_decode(benchmark::State &state)
{
    make_sealed_block();
    while (state.KeepRunning()) {
        hash_of_file(bench_block_path(0), sealed_block.size());
        for (std::size_t at = CACHE_BLOCK_HDR_LEN; at < sealed_block.size();) {
            std::uint32_t length = 0;
            std::memcpy(&length, &sealed_block[at], sizeof length);
            IMACacheBlock message{};
            require(message_decode(std::span(sealed_block).subspan(at + sizeof length, length), message),
                    "a chunk cannot be decoded");
            message_release(message);
            at += sizeof length + length;
        }
    }
}

RATIO_BENCHMARK("read a sealed block: hash, decode", 1.2, read_block, hash_and_decode);

// ---- starting ----

constexpr unsigned STARTED_OVER = 20;

// Chunks of long events, so that blocks of the usual size are there soon: a start looks at bytes.
void make_twenty_blocks()
{
    static bench_chunk chunk(4000);
    static std::string kept;
    if (!kept.empty())
        return;
    start_cache(FEW);
    while (ima_cache_ctx.meta->cur_block < STARTED_OVER)
        chunk.add();
    kept = IMA_CACHE_ROOT + std::string("twenty");
    fs::copy(ima_cache_ctx.meta->cache_dir, kept);
    for (const auto &block : fs::directory_iterator(kept))
        start_rate.bytes += fs::file_size(block);
    start_rate.events = ima_cache_ctx.meta->last_event;
}

void start_over_blocks(benchmark::State &state)
{
    make_twenty_blocks();
    start_cache(FEW);
    name_directory(*ima_cache_ctx.meta, "/harddisk:/ima/twenty");
    ima_cache_ctx.meta->cur_block = STARTED_OVER;
    while (state.KeepRunning()) {
        timed watch(start_rate);
        require(at_ima_cache_init() == 1, "no start");
    }
    require(ima_cache_ctx.meta->last_event == start_rate.events, "another cache");
}

void hash_blocks(benchmark::State &state)
{
    make_twenty_blocks();
    while (state.KeepRunning()) {
        for (const auto &block : fs::directory_iterator("/harddisk:/ima/twenty"))
            hash_of_file(block.path(), fs::file_size(block));
    }
}

RATIO_BENCHMARK("start over 20 sealed blocks: one hash", 1.2, start_over_blocks, hash_blocks);

// Also what was made immutable.
void clear_disk()
{
    if (!fs::exists(IMA_CACHE_ROOT))
        return;
    for (const auto &entry : fs::recursive_directory_iterator(IMA_CACHE_ROOT)) {
        if (entry.is_regular_file())
            remove_block(entry.path().c_str());
    }
    fs::remove_all(IMA_CACHE_ROOT);
    fs::remove("/harddisk:/sealed_block");
}

} // namespace

int main(int argc, char **argv)
{
    require(std::getenv("ATTEST_OWN_MACHINE") != nullptr,
            "run it through tests/support/own_machine: it deletes the cache of the machine");
    clear_disk();
    int result = ratio_main(argc, argv);
    for (job_rate *rate : {&fill_rate, &read_rate, &start_rate})
        print(*rate);
    clear_disk();
    return result;
}
