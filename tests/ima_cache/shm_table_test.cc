// Insert and search: what is found, what is refused, where entries lie.
#include <algorithm>
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
}

TEST(Table, TellsKeysOfEqualHashApart)
{
    const std::vector<std::string> keys = keys_of_bucket(7, 2);
    table_of_test table;
    table.insert(keys[0], 1);
    shmht_entry &entry = table->buckets[7];
    const std::string key(keys[1].size(), 'x'); // not the one whose hash it seems to have
    entry.hash = murmur_hash_64a(std::as_bytes(std::span(keys[1])), 42);
    std::ranges::copy(std::as_bytes(std::span(key)), entry.key.begin());
    entry.key_len = key.size();
    EXPECT_EQ(table.search(keys[1]), -1);
    std::ranges::copy(std::as_bytes(std::span(keys[1])), entry.key.begin());
    EXPECT_EQ(table.search(keys[1]), 1);
    entry.key_len -= 1;
    EXPECT_EQ(table.search(keys[1]), -1);
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

// What a foreign hand may do to a table while it is open. (What a death in an insert may leave is stepped
// through in shm_table_kill_test.cc.)
TEST(Table, IsNotReadOutsideOrWithoutEndWhenItIsDamaged)
{
    const struct {
        const char *what;
        void (*make)(shmht_handle &);
    } damages[] = {
        {"the chain loops", [](auto &table) { table.overflow[2].next = 0; }},
        {"the chain loops on itself", [](auto &table) { table.overflow[1].next = 1; }},
        {"the chain leaves the area", [](auto &table) { table.overflow[2].next = 53; }},
        {"the chain leaves the address space", [](auto &table) { table.overflow[2].next = 1ull << 60; }},
        {"the chain goes behind the free entry", [](auto &table) { cut_off_in(table, 7); }},
        {"the chain leads to a free entry", [](auto &table) { table.overflow[2].next = 9; }},
        {"more buckets than mapped", [](auto &table) { table.header->bucket_count = 97; }},
        {"no buckets", [](auto &table) { table.header->bucket_count = 0; }},
        {"more entries than buckets", [](auto &table) { table.header->entry_count = 54; }},
        {"collisions beyond the area", [](auto &table) { table.header->collision_count = 53; }},
        {"collisions at the last slot", [](auto &table) { table.header->collision_count = 52; }},
        {"cut off at the last slot",
         [](auto &table) {
             cut_off_in(table, 52);
             table.header->collision_count = 52;
         }},
        {"cut off in a full table",
         [](auto &table) {
             cut_off_in(table, 3);
             table.header->entry_count = 53;
         }},
        {"entries behind the free one",
         [](auto &table) {
             cut_off_in(table, 3);
             table.overflow[4] = table.overflow[3];
         }},
    };
    const std::vector<std::string> keys = keys_of_bucket(7, 6);
    for (const auto &[what, make] : damages) {
        SCOPED_TRACE(what);
        table_of_test table;
        for (std::size_t i = 0; i < 4; ++i)
            table.insert(keys[i], i);
        make(*table.get());
        EXPECT_EQ(table.search(keys[5]), -1);
        EXPECT_EQ(table.insert(keys[5], 5), -1);
        EXPECT_EQ(table.search(keys[5]), -1);
    }
}

} // namespace
