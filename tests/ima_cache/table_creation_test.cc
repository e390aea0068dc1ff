// Which table is set up, which is kept, which object is none.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/ima_cache/table_of_test.h"
#include "tests/support/trace_capture.h"

namespace {

struct stat object_of(const table_of_test &table)
{
    struct stat object {};
    stat(table.path.c_str(), &object);
    return object;
}

TEST(Creation, ChoosesTheNextPrime)
{
    for (auto [requested, buckets] : std::initializer_list<std::pair<std::uint64_t, std::uint64_t>>{
             {0, 53}, {52, 53}, {53, 97}, {96, 97}, {97, 193}, {12288, 12289}, {12289, 24593}}) {
        table_of_test table(requested);
        ASSERT_TRUE(table.handle) << requested;
        EXPECT_EQ(table->header->bucket_count, buckets) << requested;
        EXPECT_EQ(shmht_sizes[table->header->size_index], buckets);
        EXPECT_EQ(object_of(table).st_size, buckets * 1104 + 40);
    }
    EXPECT_FALSE(table_of_test(0x40000001).handle);
}

// The whole table at its shipped size: it must cost what is used of it.
TEST(Creation, TakesNoMemoryForWhatNobodyUses)
{
    table_of_test table(0x100000);
    if (table.handle && table->bucket_count != 1572869)
        GTEST_SKIP() << "less than 7 GB free in /dev/shm";
    ASSERT_TRUE(table.handle);
    EXPECT_EQ(object_of(table).st_size, 1736447416);
    EXPECT_LE(object_of(table).st_blocks * 512, 4096);
    table.insert("key", 1);
    EXPECT_LE(object_of(table).st_blocks * 512, 5 * 4096);
}

TEST(Creation, SaysWhatItDoes)
{
    trace_captured.clear();
    table_of_test table;
    std::string fd = std::to_string(table->header->shm_fd);
    std::vector<std::string> expected = {
        "shm_open failed \n",
        "Set number of IMA hash table entries to 53\n",
        "create_shmht: The shmem id is: " + fd + "\n The size is 58552 \n",
        "create_shmht: set to zero\n",
        "SEM Key created " + std::to_string(ftok(table.path.c_str(), 1)) + " \n",
        "create_shmht: Init the semaphores to 0 (unlocked)\n",
        "create_shmht: The id of the semaphore is: " + std::to_string(table->header->semid) + "\n"};
    std::vector<std::string> said;
    said.reserve(trace_captured.size());
    for (const std::string &line : trace_captured)
        said.push_back(line.substr(line.find("(): ") + 4));
    // The semaphore set is new unless an object that had this inode has left its set behind.
    if (said.size() + 1 == expected.size())
        expected.erase(expected.end() - 2);
    EXPECT_EQ(said, expected);
}

TEST(Reopening, KeepsEntriesWhenAnotherSizeIsAskedFor)
{
    table_of_test table;
    std::vector<std::string> keys = keys_of_bucket(1, 4);
    for (std::size_t i = 0; i < keys.size(); ++i)
        table.insert(keys[i], i);
    table->header->shm_fd = 77;
    auto later = table.open_again(100000);
    ASSERT_TRUE(later);
    EXPECT_EQ(later->bucket_count, 53);
    EXPECT_EQ(later->header->shm_fd, 77);
    for (std::size_t i = 0; i < keys.size(); ++i)
        EXPECT_EQ(search_key(later.get(), keys[i]), i);
    EXPECT_EQ(insert_key(later.get(), "new", 9), 1);
    EXPECT_EQ(table.search("new"), 9);
}

// What may lie under the table's name that is no whole table.
TEST(Reopening, LocksWithTheSetThatIsThereNow)
{
    table_of_test table;
    table.insert("key", 1);
    ASSERT_EQ(semctl(static_cast<int>(table->header->semid), 0, IPC_RMID), 0);
    auto later = table.open_again();
    ASSERT_TRUE(later);
    EXPECT_EQ(insert_key(later.get(), "other", 2), SHMHT_INSERTED);
    EXPECT_EQ(search_key(later.get(), "key"), 1);
}

TEST(Reopening, TakesNoForeignObjectForATable)
{
    const struct {
        const char *what;
        void (*make)(std::vector<std::byte> &bytes, shmht_header &header);
    } objects[] = {
        {"empty", [](auto &bytes, auto &) { bytes.clear(); }},
        {"a cut header", [](auto &bytes, auto &) { bytes.resize(39); }},
        {"a cut area", [](auto &bytes, auto &) { bytes.resize(bytes.size() - 1); }},
        {"larger", [](auto &bytes, auto &) { bytes.resize(300000); }},
        {"sized only", [](auto &bytes, auto &) { std::ranges::fill(bytes, std::byte{0}); }},
        {"no bucket count", [](auto &, auto &header) { header.bucket_count = 0; }},
        {"another bucket count", [](auto &, auto &header) { header.bucket_count = 54; }},
        {"another size", [](auto &, auto &header) { header.size_index = 1; }},
        {"a size outside the list", [](auto &, auto &header) { header.size_index = 1ull << 40; }},
        {"consistent for another size",
         [](auto &, auto &header) {
             header.size_index = 3;
             header.bucket_count = 389;
         }},
        {"too many entries", [](auto &, auto &header) { header.entry_count = 54; }},
        {"too many collisions", [](auto &, auto &header) { header.collision_count = 6; }},
        {"noise",
         [](auto &bytes, auto &) {
             std::mt19937 random(1);
             std::ranges::generate(bytes, [&] { return std::byte(random() & 0xFF); });
         }},
    };
    for (const auto &[what, make] : objects) {
        SCOPED_TRACE(what);
        table_of_test table;
        for (const std::string &key : keys_of_bucket(3, 5))
            table.insert(key, 1);
        std::vector<std::byte> bytes(object_of(table).st_size);
        std::memcpy(bytes.data(), table->header, bytes.size());
        table.handle.reset(); // a cut object must not be looked at
        make(bytes, *reinterpret_cast<shmht_header *>(bytes.data()));
        table.overwrite(bytes);

        auto later = table.open_again(60);
        ASSERT_TRUE(later);
        EXPECT_EQ(later->bucket_count, 97);
        EXPECT_EQ(later->header->entry_count, 0);
        EXPECT_EQ(later->header->collision_count, 0);
        EXPECT_EQ(count_entries(*later), 0);
        EXPECT_EQ(insert_key(later.get(), "key", 3), 1);
        EXPECT_EQ(search_key(later.get(), "key"), 3);
        EXPECT_EQ(object_of(table).st_size, 97 * 1104 + 40);
    }
}

TEST(Creation, TakesNoObjectOfAnotherUsers)
{
    table_of_test table;
    table.insert("key", 1);
    if (chown(table.path.c_str(), 1, static_cast<gid_t>(-1)) != 0)
        GTEST_SKIP() << "no other users here";
    auto later = table.open_again();
    ASSERT_TRUE(later);
    EXPECT_EQ(search_key(later.get(), "key"), -1);
    EXPECT_EQ(object_of(table).st_uid, geteuid());
    EXPECT_EQ(table.search("key"), 1) << "what is mapped stays whole";
}

TEST(Space, IsTakenUpToAQuarterOfWhatIsFree)
{
    const struct {
        std::size_t size;
        std::uint64_t buckets; // the most, of 1104 bytes each, that find room; 0: no table does
    } cases[] = {{3 << 16, 0}, {4 << 16, 53}, {9 << 16, 97}, {76 << 16, 769}, {915 << 16, 12'289}};
    for (const auto &row : cases) {
        in_own_shm(row.size, [&row] {
            trace_captured.clear();
            std::unique_ptr<shmht_handle> handle(at_create_shmht("ima", "/dev/shm/ima", 0x100000));
            EXPECT_EQ(handle ? handle->bucket_count : 0, row.buckets);
            EXPECT_EQ(trace_has_part("no room for a hash table"), row.buckets == 0);
        });
    }
}

// Others have filled the file system since the table was created.
TEST(Space, DoesNotKillTheProcessWhenItIsGone)
{
    in_own_shm(8 << 20, [] {
        auto handle = std::unique_ptr<shmht_handle>(at_create_shmht("ima", "/dev/shm/ima", 1500));
        ASSERT_TRUE(handle);
        ASSERT_EQ(insert_key(handle.get(), "early", 1), 1);
        int fd = open("/dev/shm/filler", O_RDWR | O_CREAT, 0600);
        for (std::vector<char> page(4096); write(fd, page.data(), page.size()) > 0;) {
        }
        int refused = 0;
        for (int i = 0; i < 200; ++i) {
            std::string key = "late " + std::to_string(i);
            EXPECT_EQ(search_key(handle.get(), key), -1);
            if (insert_key(handle.get(), key, i) == -1)
                ++refused;
            else
                EXPECT_EQ(search_key(handle.get(), key), i);
        }
        EXPECT_GT(refused, 100);
        EXPECT_EQ(search_key(handle.get(), "early"), 1);
        ASSERT_EQ(ftruncate(fd, 0), 0);
        EXPECT_EQ(handle->header->entry_count, count_entries(*handle));
        EXPECT_EQ(insert_key(handle.get(), "later still", 7), 1);
    });
}

// Many processes that open the same table for the first time must end up with one table and one lock.
TEST(Creation, OfManyAtOnceMakesOneTable)
{
    for (int round = 0; round < 20; ++round) {
        table_of_test table;
        table.remove();
        in_children(6, [&](int i) {
            auto handle = table.open_again();
            return handle && insert_key(handle.get(), std::to_string(i), i) == 1;
        });
        auto handle = table.open_again();
        ASSERT_TRUE(handle);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(search_key(handle.get(), std::to_string(i)), i) << "lost in round " << round;
    }
}

} // namespace
