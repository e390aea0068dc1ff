// The measurement list: reading it, the table behind the de-duplication, and both together. Times are of one
// pass over the list, or of the part of it or the operations that a job's name says. Behind the table of
// ratios: the mean of all repetitions per record and per operation, and what the full table costs in time and
// memory as it fills.
#include "bench/ratio.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "agent/agent_state.h"
#include "agent/debug_trace.h"
#include "bench/ima/measured_list.h"
#include "bench/ima/table_yardsticks.h"
#include "ima/deduplication.h"

namespace {

constexpr std::size_t OPERATIONS = 50'000;

void require(bool holds, benchmark::State &state)
{
    if (!holds)
        state.SkipWithError("a wrong result");
}

// What one record or operation takes, over all that was run of it.
struct cost {
    const char *what;
    double ns;
    std::size_t count;
};
std::vector<cost> &costs()
{
    static std::vector<cost> all;
    return all;
}

template <class Work>
void counted(const char *what, std::size_t count, Work work)
{
    auto begin = std::chrono::steady_clock::now();
    work();
    std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - begin;
    for (cost &known : costs()) {
        if (known.what == what) {
            known.ns += taken.count();
            known.count += count;
            return;
        }
    }
    costs().push_back({what, taken.count(), count});
}

// ---- parsing ----

void parse(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        counted("parse, a record", the_list().records,
                [] { parse_list([](IMA_EVENT &event) { benchmark::DoNotOptimize(event); }); });
    }
}
void heap_blocks_and_read(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state)
        heap_and_read();
}
RATIO_BENCHMARK("parse the list", 1.6, parse, heap_blocks_and_read);

// ---- search: random keys of a table that holds the whole list ----

template <class Search>
void search_keys(benchmark::State &state, const char *what, Search search)
{
    const std::vector<std::string> &keys = the_list().keys;
    static std::size_t next; // each search's own: it goes through all keys before it meets one again
    for ([[maybe_unused]] auto _ : state) {
        counted(what, OPERATIONS, [&] {
            for (std::size_t i = 0; i < OPERATIONS; ++i, next = (next + 1) % keys.size())
                require(search(keys[next]), state);
        });
    }
}

struct filled_bench_table : bench_table {
    filled_bench_table()
    {
        std::uint64_t value = 0;
        for (const std::string &key : the_list().keys)
            at_shmht_insert(handle.get(), key.data(), key.size(), ++value);
    }
};
shmht_handle *filled_table()
{
    static const filled_bench_table table;
    return table.handle.get();
}

void search(benchmark::State &state)
{
    shmht_handle *table = filled_table();
    search_keys(state, "search", [table](const std::string &key) {
        std::uint64_t value = 0;
        return at_shmht_search(table, key.data(), key.size(), &value) == 0;
    });
}
void calls_and_unlocked_search(benchmark::State &state)
{
    const shmht_handle &table = *filled_table();
    semaphore_calls calls;
    search_keys(state, "search, calls and unlocked", [&](const std::string &key) {
        std::uint64_t value = 0;
        calls.of_a_search();
        return unlocked_search(table.buckets, table.overflow, table.bucket_count, key, value);
    });
}
void lmdb_search(benchmark::State &state)
{
    static const lmdb_store store;
    static const bool filled = [] {
        std::uint64_t value = 0;
        MDB_txn *transaction = nullptr;
        mdb_txn_begin(store.environment, nullptr, 0, &transaction);
        for (const std::string &key : the_list().keys) {
            MDB_val name{key.size(), const_cast<char *>(key.data())};
            MDB_val data{sizeof value, &++value};
            mdb_put(transaction, store.store, &name, &data, 0);
        }
        return mdb_txn_commit(transaction) == 0;
    }();
    require(filled, state);
    search_keys(state, "search, LMDB", [&](const std::string &key) {
        std::uint64_t value = 0;
        return store.search(key, value);
    });
}
RATIO_BENCHMARK("search 50,000", 1.3, search, calls_and_unlocked_search);
RATIO_BENCHMARK("search 50,000, LMDB beside", 1.0, search, lmdb_search);

// ---- insert: the whole list into a table that has been created but never used, a part a time ----

template <class Table, class Insert>
void insert_keys(benchmark::State &state, const char *what, Insert insert)
{
    static std::unique_ptr<Table> table;
    static std::size_t next;
    const std::vector<std::string> &keys = the_list().keys;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        if (!table)
            table = std::make_unique<Table>();
        std::size_t begin = next;
        std::size_t end = std::min(begin + keys.size() / PARTS + 1, keys.size());
        state.ResumeTiming();
        counted(what, end - begin, [&] {
            for (std::size_t i = begin; i < end; ++i)
                insert(*table, keys[i], i);
        });
        state.PauseTiming();
        next = end % keys.size();
        if (next == 0)
            table.reset();
        state.ResumeTiming();
    }
}

// Two jobs, each with a table of its own, so that either goes through all parts.
template <int job>
struct job_table : bench_table {
};
template <int job>
void insert(benchmark::State &state)
{
    insert_keys<job_table<job>>(state, "insert",
                                [](bench_table &table, const std::string &key, std::uint64_t value) {
                                    at_shmht_insert(table.handle.get(), key.data(), key.size(), value);
                                });
}
struct full_unlocked_table : unlocked_table {
    full_unlocked_table() : unlocked_table(1572869) {}
    semaphore_calls calls;
};
void calls_and_unlocked_insert(benchmark::State &state)
{
    insert_keys<full_unlocked_table>(
        state, "insert, calls and unlocked",
        [](full_unlocked_table &table, const std::string &key, std::uint64_t value) {
            table.calls.of_an_insert();
            table.insert(key, value);
        });
}
void lmdb_insert(benchmark::State &state)
{
    insert_keys<lmdb_store>(
        state, "insert, LMDB",
        [](lmdb_store &store, const std::string &key, std::uint64_t value) { store.insert(key, value); });
}
RATIO_BENCHMARK("insert a part of the list", 1.3, insert<1>, calls_and_unlocked_insert);
RATIO_BENCHMARK("insert a part of the list, LMDB beside", 1.0, insert<2>, lmdb_insert);

// ---- parsing and de-duplicating ----

void deduplicate(list_reading &reading, shmht_handle *table, const char *what)
{
    at_agent_state.at_ima_ht = table;
    counted(what, the_list().parts[reading.next_part].records,
            [&] { parse_part(reading, [](IMA_EVENT &event) { mark_duplicate(&event, 0); }); });
    at_agent_state.at_ima_ht = nullptr;
}
void parse_a_part(list_reading &reading)
{
    parse_part(reading, [](IMA_EVENT &event) { benchmark::DoNotOptimize(event); });
}

// The first reading after a boot: every new measurement is searched and inserted.
void first_reading(benchmark::State &state)
{
    static list_reading reading;
    static std::unique_ptr<bench_table> table;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        if (reading.next_part == 0) {
            table.reset();
            table = std::make_unique<bench_table>();
        }
        state.ResumeTiming();
        deduplicate(reading, table->handle.get(), "first reading, a record");
    }
}
void calls_and_parse(benchmark::State &state)
{
    static list_reading reading;
    semaphore_calls calls;
    for ([[maybe_unused]] auto _ : state) {
        const list_part &part = the_list().parts[reading.next_part];
        for (std::size_t i = 0; i < part.records; ++i)
            calls.of_a_search();
        for (std::size_t i = 0; i < part.first_seen; ++i)
            calls.of_an_insert();
        parse_a_part(reading);
    }
}
RATIO_BENCHMARK("de-duplicate a part, first reading", 1.3, first_reading, calls_and_parse);

// Any later reading: everything is found.
void later_reading(benchmark::State &state)
{
    static list_reading reading;
    for ([[maybe_unused]] auto _ : state)
        deduplicate(reading, filled_table(), "later reading, a record");
}
void search_calls_and_parse(benchmark::State &state)
{
    static list_reading reading;
    semaphore_calls calls;
    for ([[maybe_unused]] auto _ : state) {
        for (std::size_t i = 0; i < the_list().parts[reading.next_part].records; ++i)
            calls.of_a_search();
        parse_a_part(reading);
    }
}
RATIO_BENCHMARK("de-duplicate a part, later readings", 1.3, later_reading, search_calls_and_parse);

// ---- what no operation can go below here ----

void count_calls()
{
    semaphore_calls calls;
    auto repeat = [](const char *what, auto call) {
        counted(what, OPERATIONS, [&] {
            for (std::size_t i = 0; i < OPERATIONS; ++i)
                call();
        });
    };
    repeat("a system call that does nothing", [] { syscall(SYS_getppid); });
    repeat("a search's semaphore calls", [&] { calls.of_a_search(); });
    repeat("an insert's semaphore calls", [&] { calls.of_an_insert(); });
}

// ---- the full table's cost ----

void report_growth()
{
    auto begin = std::chrono::steady_clock::now();
    bench_table table;
    std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - begin;
    std::printf("full table: created in %.2f ms with %.2f MB of memory\n", taken.count(),
                static_cast<double>(table.object_bytes()) / 1e6);
    std::uint64_t value = 0;
    for (std::size_t entries :
         {std::size_t{1000}, std::size_t{10'000}, std::size_t{100'000}, the_list().keys.size()}) {
        for (; value < std::min(entries, the_list().keys.size()); ++value) {
            const std::string &key = the_list().keys[value];
            at_shmht_insert(table.handle.get(), key.data(), key.size(), value);
        }
        std::printf("  with %8lu entries: %8.2f MB\n", value,
                    static_cast<double>(table.object_bytes()) / 1e6);
    }
}

} // namespace

int main(int argc, char **argv)
{
    static trace_flag off{0};
    attest_dbg_flag_agent = &off;
    std::printf("%zu records, %zu distinct measurements\n", the_list().records, the_list().keys.size());
    int result = ratio_main(argc, argv);
    count_calls();
    for (const cost &known : costs())
        std::printf("%-40s %8.0f ns\n", known.what, known.ns / static_cast<double>(known.count));
    report_growth();
    return result;
}
