// An insert that dies: at every single instruction, and at random ones among several processes.
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/ima_cache/table_of_test.h"

namespace {

// A table with the entries that an insert meets, and a second one on which what a death would leave is tried.
struct scene {
    table_of_test table;
    table_of_test after_death;
    std::vector<std::pair<std::string, std::uint64_t>> present;
    std::string new_key;
    // As large as the count of entries: what the insert has written may look like its note.
    std::int64_t new_value() const { return static_cast<std::int64_t>(present.size()); }
};

// What any process must find in the object as the cut-off insert left it, and the next writer must make of
// it.
void check_what_is_left(scene &scene, std::size_t size, const std::string &next_key)
{
    shmht_handle *left = scene.after_death.get();
    std::uint32_t semid = left->header->semid;
    std::memcpy(left->header, scene.table->header, size);
    left->header->semid = semid;

    ASSERT_TRUE(scene.after_death.open_again()) << "a restarted process would clear the table";
    for (const auto &[key, value] : scene.present)
        ASSERT_EQ(search_key(left, key), value);
    std::int64_t cut_off = search_key(left, scene.new_key);
    ASSERT_TRUE(cut_off == -1 || cut_off == scene.new_value()) << cut_off;

    ASSERT_EQ(insert_key(left, next_key, 4711), 1);
    for (const auto &[key, value] : scene.present)
        ASSERT_EQ(search_key(left, key), value);
    ASSERT_EQ(search_key(left, scene.new_key), cut_off);
    ASSERT_EQ(search_key(left, next_key), 4711);
    std::uint64_t entries = scene.present.size() + (cut_off == -1 ? 1 : 2);
    ASSERT_EQ(left->header->entry_count, entries);
    ASSERT_EQ(count_entries(*left), entries);
    std::uint64_t collisions = 0;
    while (left->overflow[collisions].in_use != 0)
        ++collisions;
    ASSERT_EQ(left->header->collision_count, collisions);
}

// Steps a child through one insert and looks at the object after each instruction that changed it. The number
// of states seen; -1 when a child cannot be stepped here.
int step_through_insert(scene &scene, const std::vector<std::string> &next_keys)
{
    pid_t child = fork();
    if (child < 0)
        return -1;
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(3);
        raise(SIGSTOP);
        _exit(scene.table.insert(scene.new_key, scene.new_value()) == 1 ? 0 : 1);
    }
    std::size_t size = shmht_object_size(scene.table->bucket_count);
    std::vector<std::byte> last(size);
    std::memcpy(last.data(), scene.table->header, size);
    int states = 0;
    int status = 0;
    for (waitpid(child, &status, 0); WIFSTOPPED(status); waitpid(child, &status, 0)) {
        if (std::memcmp(last.data(), scene.table->header, size) != 0) {
            std::memcpy(last.data(), scene.table->header, size);
            ++states;
            for (const std::string &next_key : next_keys)
                check_what_is_left(scene, size, next_key);
            if (testing::Test::HasFatalFailure())
                kill(child, SIGKILL);
        }
        if (ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) != 0)
            break;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3)
        return -1;
    EXPECT_TRUE(testing::Test::HasFatalFailure() || (WIFEXITED(status) && WEXITSTATUS(status) == 0))
        << status;
    return states;
}

class CutOffInsert : public testing::TestWithParam<int> {};

// The parameter: how many entries the new key's home slot and chain have already.
TEST_P(CutOffInsert, LeavesAWholeEntryOrNone)
{
    scene scene;
    std::vector<std::string> same_home = keys_of_bucket(7, 8);
    std::vector<std::string> other_home = keys_of_bucket(30, 6);
    auto put = [&](const std::string &key, std::uint64_t value) {
        ASSERT_EQ(scene.table.insert(key, value), 1);
        scene.present.emplace_back(key, value);
    };
    for (int i = 0; i < 4; ++i)
        put(other_home[i], 100 + i);
    for (int i = 0; i < GetParam(); ++i)
        put(same_home[i], 200 + i);
    scene.new_key = same_home[GetParam()];
    // The next writer comes with the same chain, another chain, and a free home slot.
    int states =
        step_through_insert(scene, {same_home.back(), other_home.back(), keys_of_bucket(50, 1).front()});
    if (states < 0)
        GTEST_SKIP() << "children cannot be traced here";
    EXPECT_GT(states, 8);
}

INSTANTIATE_TEST_SUITE_P(Kill, CutOffInsert, testing::Values(0, 1, 2, 3));

// ---- random kills ----

constexpr int WRITERS = 3;
constexpr int KILLS = 1000;
// On a machine that is too busy for a thousand, fewer must do.
constexpr std::chrono::seconds ENOUGH{45};

// What the writers tell the test, in memory that outlives them.
struct progress {
    std::array<std::uint64_t, WRITERS> next; // the key each goes on with; a key below has been acknowledged
};

std::string key_of(std::uint64_t writer, std::uint64_t number)
{
    return std::to_string(writer) + "/" + std::to_string(number) + std::string(number % 200, 'x');
}

void write_until_killed(const table_of_test &table, progress &progress, std::uint64_t writer)
{
    auto handle = table.open_again();
    if (!handle)
        _exit(1);
    // All fit; who is through goes on searching.
    const std::uint64_t keys_each = handle->bucket_count / (WRITERS + 1);
    std::uint64_t number = progress.next[writer];
    // The predecessor may have died between the insert and its acknowledgement.
    if (search_key(handle.get(), key_of(writer, number)) == static_cast<std::int64_t>(number))
        progress.next[writer] = ++number;
    for (std::uint64_t round = 0;; ++round) {
        if (number < keys_each) {
            if (insert_key(handle.get(), key_of(writer, number), number) != 1)
                _exit(1);
            *static_cast<volatile std::uint64_t *>(&progress.next[writer]) = ++number;
        }
        std::uint64_t any = round % number;
        if (search_key(handle.get(), key_of(writer, any)) != static_cast<std::int64_t>(any))
            _exit(1);
    }
}

pid_t start_writer(const table_of_test &table, progress &progress, std::uint64_t writer)
{
    pid_t child = fork();
    if (child < 0)
        std::abort(); // -1 is not to be killed: it stands for every process
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        write_until_killed(table, progress, writer);
    }
    return child;
}

TEST(Kill, OfAThousandHoldersLosesNoEntry)
{
    table_of_test table(98'316);
    ASSERT_TRUE(table.handle);
    auto *shared = static_cast<progress *>(
        mmap(nullptr, sizeof(progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::array<pid_t, WRITERS> writers{};
    for (std::uint64_t i = 0; i < WRITERS; ++i)
        writers[i] = start_writer(table, *shared, i);
    std::mt19937 random(7);
    auto end = std::chrono::steady_clock::now() + ENOUGH;
    int kills = 0;
    for (; kills < KILLS && !HasFailure() && std::chrono::steady_clock::now() < end; ++kills) {
        usleep(static_cast<useconds_t>(500 + random() % 3000));
        std::uint64_t victim = random() % WRITERS;
        kill(writers[victim], SIGKILL);
        int status = 0;
        waitpid(writers[victim], &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "writer " << victim << " met a wrong table, kill " << kills;
        writers[victim] = start_writer(table, *shared, victim);
    }
    for (pid_t writer : writers) {
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
    }
    std::printf("%d kills\n", kills);
    EXPECT_GT(kills, 20);
    std::uint64_t found = 0;
    for (std::uint64_t writer = 0; writer < WRITERS; ++writer) {
        std::uint64_t acknowledged = shared->next[writer];
        EXPECT_GT(acknowledged, 0);
        for (std::uint64_t i = 0; i < acknowledged; ++i)
            ASSERT_EQ(table.search(key_of(writer, i)), i) << "writer " << writer << " of " << acknowledged;
        std::int64_t last = table.search(key_of(writer, acknowledged));
        EXPECT_TRUE(last == -1 || last == static_cast<std::int64_t>(acknowledged));
        found += acknowledged + (last == -1 ? 0 : 1);
    }
    int semid = static_cast<int>(table->header->semid);
    EXPECT_EQ(semctl(semid, 0, GETVAL), 0);
    EXPECT_EQ(semctl(semid, 1, GETVAL), 0);
    ASSERT_EQ(table.insert("the next writer", 1), 1);
    EXPECT_EQ(table->header->entry_count, found + 1);
    EXPECT_EQ(count_entries(*table.get()), found + 1);
    munmap(shared, sizeof(progress));
}

} // namespace
