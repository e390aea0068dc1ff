// Insert and search: what is found, what is refused, where entries lie.
#include <bits/hash_bytes.h>
#include <gtest/gtest.h>
#include <sys/sem.h>

#include "ima_cache/murmur_hash.h"
#include "tests/ima_cache/table_of_test.h"
#include "tests/support/trace_capture.h"

namespace {

// The C++ library has the same function for its own hash tables.
TEST(Hash, AgreesWithThePublishedOne)
{
    std::string text =
        "an arbitrary text whose beginnings are hashed, with \xff\x80 in it and some length to it";
    for (std::size_t length = 0; length <= text.size(); ++length) {
        auto bytes = std::as_bytes(std::span(text.data(), length));
        EXPECT_EQ(murmur_hash_64a(bytes, 42), std::_Hash_bytes(text.data(), length, 42)) << length;
    }
}

TEST(Table, FindsEachEntryAndRefusesMoreThanItHasBuckets)
{
    table_of_test table(100);
    ASSERT_EQ(table->bucket_count, 193);
    for (int i = 0; i < 193; ++i) {
        EXPECT_EQ(table.search("/bin/" + std::to_string(i)), -1);
        EXPECT_EQ(table.insert("/bin/" + std::to_string(i), i), 1) << i;
    }
    EXPECT_EQ(table.insert("one more", 1), -1) << "accepted more entries than buckets";
    for (int i = 0; i < 193; ++i)
        EXPECT_EQ(table.search("/bin/" + std::to_string(i)), i);
    EXPECT_EQ(table.search("one more"), -1);
    EXPECT_EQ(table->header->entry_count, 193);
    EXPECT_EQ(count_entries(*table.get()), 193);
}

TEST(Table, PutsACollisionAtTheEndOfItsChain)
{
    table_of_test table;
    std::vector<std::string> keys = keys_of_bucket(7, 53);
    for (std::size_t i = 0; i < keys.size(); ++i)
        EXPECT_EQ(table.insert(keys[i], i), 1) << i;
    EXPECT_EQ(table->header->collision_count, 52);
    EXPECT_EQ(table->header->entry_count, 53);
    EXPECT_EQ(table->buckets[7].next, 0);
    for (std::size_t i = 0; i < 51; ++i)
        EXPECT_EQ(table->overflow[i].next, i + 1);
    EXPECT_EQ(table->overflow[51].next, SHMHT_CHAIN_END);
    for (std::size_t i = 0; i < keys.size(); ++i)
        EXPECT_EQ(table.search(keys[i]), i);
    EXPECT_EQ(table.insert("full", 1), -1);
}

TEST(Table, TellsKeysOfEqualHashApart)
{
    // The second word of a 16-byte key that gives the hash a wanted value: every step of the hash has an
    // inverse.
    auto unmix = [](std::uint64_t word) {
        constexpr std::uint64_t inverse = 0x5f7a0ea7e59b19bd;
        static_assert(inverse * MURMUR_MULTIPLIER == 1);
        word *= inverse;
        word ^= word >> MURMUR_SHIFT;
        return word * inverse;
    };
    auto mix = [](std::uint64_t word) {
        word *= MURMUR_MULTIPLIER;
        word ^= word >> MURMUR_SHIFT;
        return word * MURMUR_MULTIPLIER;
    };
    table_of_test table;
    std::vector<std::string> keys;
    for (std::uint64_t first = 1; first <= 3; ++first) {
        std::uint64_t state = ((42 ^ (16 * MURMUR_MULTIPLIER)) ^ mix(first)) * MURMUR_MULTIPLIER;
        std::uint64_t words[2] = {first, unmix(state ^ 0x1234)};
        keys.emplace_back(reinterpret_cast<const char *>(words), sizeof words);
        table.insert(keys.back(), first);
    }
    EXPECT_EQ(table->buckets[table->overflow[0].hash % 53].hash, table->overflow[1].hash);
    for (std::uint64_t first = 1; first <= 3; ++first)
        EXPECT_EQ(table.search(keys[first - 1]), first);
}

TEST(Table, ComparesKeysWithTheirLength)
{
    table_of_test table;
    for (std::size_t length : {0, 1, 2, 8, 511, 512})
        EXPECT_EQ(table.insert(std::string(length, '\0'), length), 1);
    for (std::size_t length : {0, 1, 2, 8, 511, 512})
        EXPECT_EQ(table.search(std::string(length, '\0')), length);
    EXPECT_EQ(table.search(std::string(3, '\0')), -1);
    EXPECT_EQ(table.insert(std::string(513, 'x'), 1), -22);
    EXPECT_EQ(table.search(std::string(513, 'x')), -1);
    EXPECT_EQ(table->header->entry_count, 6);
    std::vector<std::string> keys = keys_of_bucket(7, 2);
    table_of_test damaged;
    damaged.insert(keys[0], 1);
    damaged.insert(keys[1], 2);
    damaged->overflow[0].key_len -= 1; // the hash alone is no proof
    EXPECT_EQ(damaged.search(keys[1]), -1);
    EXPECT_EQ(damaged.search(keys[0]), 1);
}

TEST(Table, IsNotAccessedWithoutItsLock)
{
    table_of_test table;
    table.insert("key", 1);
    ASSERT_EQ(semctl(static_cast<int>(table->header->semid), 0, IPC_RMID), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(table.insert("other", 2), -125);
    EXPECT_EQ(table.search("key"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "semop: : Invalid argument\nsemop: : Invalid argument\n");
    EXPECT_EQ(count_entries(*table.get()), 1);
}

TEST(Table, SaysWhereAnEntryGoes)
{
    table_of_test table;
    std::vector<std::string> keys = keys_of_bucket(9, 2);
    trace_captured.clear();
    table.insert(keys[0], 1);
    table.insert(keys[1], 2);
    table.search(keys[1]);
    EXPECT_EQ(trace_captured, (std::vector<std::string>{
                                  "at_shmht_insert(): at_shmht_insert: Generated Entry Index: 9 \n",
                                  "at_shmht_insert(): at_shmht_insert: Generated Entry Index: 9 \n",
                                  "at_shmht_insert(): at_shmht_insert: Collision in the entry 9 \n",
                                  "at_shmht_insert(): at_shmht_insert: Located free colision entry : 0\n",
                                  "at_shmht_search(): at_shmht_search: Index for this key: 9",
                                  "at_shmht_search(): at_shmht_search: found at_shmht_search!\n"}));
}

// As if an insert behind overflow entry 2 had been cut off in `slot`.
void cut_off_in(shmht_handle &table, std::uint64_t slot)
{
    table.overflow[slot] = table.overflow[2];
    table.overflow[2].next = slot;
}

// What a foreign hand may do to a table while it is open.
struct damage {
    const char *what;
    void (*make)(shmht_handle &);
};
class DamagedTable : public testing::TestWithParam<damage> {};

TEST_P(DamagedTable, IsNotReadOutsideOrWithoutEnd)
{
    table_of_test table;
    std::vector<std::string> keys = keys_of_bucket(7, 6);
    for (std::size_t i = 0; i < 4; ++i)
        table.insert(keys[i], i);
    GetParam().make(*table.get());
    EXPECT_EQ(table.search(keys[5]), -1);
    EXPECT_EQ(table.insert(keys[5], 5), -1);
    EXPECT_EQ(table.search(keys[5]), -1);
}

INSTANTIATE_TEST_SUITE_P(
    Table, DamagedTable,
    testing::Values(
        damage{"ChainLoops", [](shmht_handle &table) { table.overflow[2].next = 0; }},
        damage{"ChainLoopsOnItself", [](shmht_handle &table) { table.overflow[1].next = 1; }},
        damage{"ChainLeavesTheArea", [](shmht_handle &table) { table.overflow[2].next = 53; }},
        damage{"ChainLeavesTheAddressSpace",
               [](shmht_handle &table) { table.overflow[2].next = 1ull << 60; }},
        damage{"ChainGoesBehindTheFreeEntry",
               [](shmht_handle &table) {
                   table.overflow[7] = table.overflow[2];
                   table.overflow[2].next = 7;
               }},
        damage{"ChainLeadsToAFreeEntry", [](shmht_handle &table) { table.overflow[2].next = 9; }},
        damage{"MoreBucketsThanMapped", [](shmht_handle &table) { table.header->bucket_count = 97; }},
        damage{"NoBuckets", [](shmht_handle &table) { table.header->bucket_count = 0; }},
        damage{"MoreEntriesThanBuckets", [](shmht_handle &table) { table.header->entry_count = 54; }},
        damage{"CollisionsBeyondTheArea", [](shmht_handle &table) { table.header->collision_count = 53; }},
        damage{"CollisionsAtTheLastSlot", [](shmht_handle &table) { table.header->collision_count = 52; }},
        damage{"CutOffAtTheLastSlot",
               [](shmht_handle &table) {
                   cut_off_in(table, 52);
                   table.header->collision_count = 52;
               }},
        damage{"CutOffInAFullTable",
               [](shmht_handle &table) {
                   cut_off_in(table, 3);
                   table.header->entry_count = 53;
               }},
        damage{"EntriesBehindTheFreeOne",
               [](shmht_handle &table) {
                   cut_off_in(table, 3);
                   table.overflow[4] = table.overflow[3];
               }}),
    [](const auto &parameter) { return std::string(parameter.param.what); });

// Where an insert of keys[4] behind four others of its home slot may have been cut off, and what the next
// insert makes of it. The steps of an insert are stores to memory that outlives the process.
struct cut_off {
    const char *what;
    void (*make)(shmht_handle &, std::uint64_t free_home_hash);
    std::uint64_t entries, collisions; // after one more insert
};
class CutOffInsert : public testing::TestWithParam<cut_off> {};

void note(shmht_entry &entry, std::uint64_t hash, std::uint64_t entries)
{
    entry.hash = hash;
    entry.value = entries;
    entry.key_len = SHMHT_INSERT_NOTE;
}

TEST_P(CutOffInsert, CountsOrIsTakenBack)
{
    table_of_test table;
    std::vector<std::string> keys = keys_of_bucket(7, 6);
    std::string other = keys_of_bucket(9, 1)[0];
    for (std::size_t i = 0; i < 4; ++i)
        table.insert(keys[i], i);
    GetParam().make(*table.get(), murmur_hash_64a(std::as_bytes(std::span(other)), 42));
    EXPECT_EQ(table.insert(keys[5], 5), 1);
    EXPECT_EQ(table->header->entry_count, GetParam().entries);
    EXPECT_EQ(table->header->collision_count, GetParam().collisions);
    EXPECT_EQ(count_entries(*table.get()), GetParam().entries);
    for (int i : {0, 1, 2, 3, 5})
        EXPECT_EQ(table.search(keys[static_cast<std::size_t>(i)]), i);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CutOffInsert,
    testing::Values(
        cut_off{"BeforeTheLink",
                [](shmht_handle &table, std::uint64_t) {
                    table.overflow[3] = table.overflow[2]; // in no chain
                },
                5, 4},
        cut_off{"BeforeTheCount", [](shmht_handle &table, std::uint64_t) { cut_off_in(table, 3); }, 6, 5},
        cut_off{"AfterTheNote",
                [](shmht_handle &table, std::uint64_t) {
                    cut_off_in(table, 3);
                    note(table.overflow[4], table.overflow[3].hash, 4);
                },
                6, 5},
        cut_off{"BeforeTheCountOfEntries",
                [](shmht_handle &table, std::uint64_t) {
                    cut_off_in(table, 3);
                    note(table.overflow[4], table.overflow[3].hash, 4);
                    table.header->collision_count = 4;
                },
                6, 5},
        cut_off{"AtHomeBeforeTheEntry",
                [](shmht_handle &table, std::uint64_t hash) { note(table.overflow[3], hash, 4); }, 5, 4},
        cut_off{"AtHomeBeforeTheCount",
                [](shmht_handle &table, std::uint64_t hash) {
                    note(table.overflow[3], hash, 4);
                    table.buckets[9] = table.buckets[7];
                    table.buckets[9].hash = hash;
                    table.buckets[9].next = SHMHT_CHAIN_END;
                },
                6, 4},
        cut_off{"LongAgo",
                [](shmht_handle &table, std::uint64_t) { note(table.overflow[3], table.buckets[7].hash, 3); },
                5, 4}),
    [](const auto &parameter) { return std::string(parameter.param.what); });

} // namespace
