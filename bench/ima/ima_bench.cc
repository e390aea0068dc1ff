// The measurement list: reading it, the table behind the de-duplication, and both together. Times are of one
// pass over the list, or of the operations that a job's name counts. Behind the table of ratios: the mean of
// all repetitions per record and per operation, and what the full table costs in time and memory as it fills.
#include "bench/ratio.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
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
    std::size_t next = 0;
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

// ---- insert: new keys into a table that has been created but never used ----

template <class Table, class Insert>
void insert_keys(benchmark::State &state, const char *what, Insert insert)
{
    const std::vector<std::string> &keys = the_list().keys;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        {
            Table table;
            state.ResumeTiming();
            std::size_t count = std::min(OPERATIONS, keys.size());
            counted(what, count, [&] {
                for (std::size_t i = 0; i < count; ++i)
                    insert(table, keys[i], i);
            });
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
}

void insert(benchmark::State &state)
{
    insert_keys<bench_table>(state, "insert",
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
RATIO_BENCHMARK("insert 50,000", 1.3, insert, calls_and_unlocked_insert);
RATIO_BENCHMARK("insert 50,000, LMDB beside", 1.0, insert, lmdb_insert);

// ---- parsing and de-duplicating ----

void deduplicate(shmht_handle *table)
{
    at_agent_state.at_ima_ht = table;
    parse_list([](IMA_EVENT &event) { mark_duplicate(&event, 0); });
    at_agent_state.at_ima_ht = nullptr;
}

// The first reading after a boot: every new measurement is searched and inserted.
void first_reading(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        {
            bench_table table;
            state.ResumeTiming();
            counted("first reading, a record", the_list().records, [&] { deduplicate(table.handle.get()); });
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
}
void calls_and_parse(benchmark::State &state)
{
    semaphore_calls calls;
    for ([[maybe_unused]] auto _ : state) {
        for (std::size_t i = 0; i < the_list().checked; ++i)
            calls.of_a_search();
        for (std::size_t i = 0; i < the_list().keys.size(); ++i)
            calls.of_an_insert();
        parse_list([](IMA_EVENT &event) { benchmark::DoNotOptimize(event); });
    }
}
RATIO_BENCHMARK("de-duplicate the list, first reading", 1.3, first_reading, calls_and_parse);

// Any later reading: everything is found.
void later_reading(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state)
        counted("later reading, a record", the_list().records, [] { deduplicate(filled_table()); });
}
void search_calls_and_parse(benchmark::State &state)
{
    semaphore_calls calls;
    for ([[maybe_unused]] auto _ : state) {
        for (std::size_t i = 0; i < the_list().checked; ++i)
            calls.of_a_search();
        parse_list([](IMA_EVENT &event) { benchmark::DoNotOptimize(event); });
    }
}
RATIO_BENCHMARK("de-duplicate the list, later readings", 1.3, later_reading, search_calls_and_parse);

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
    for (const cost &known : costs())
        std::printf("%-40s %8.0f ns\n", known.what, known.ns / static_cast<double>(known.count));
    report_growth();
    return result;
}
