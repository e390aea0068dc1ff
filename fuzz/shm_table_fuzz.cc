// A table object of any bytes, found at the start or changed while it is open: operations fail, they neither
// leave the object nor go on for ever.
//
// The input: how the object is damaged (1 byte), the header (40), a count of entries (1) and the entries,
// then a byte an operation. Entry fields are small numbers, so that chains lead to entries that are there.
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <span>
#include <string>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "ima_cache/semaphore_lock.h"
#include "ima_cache/shm_table.h"
#include "platform/byte_cursor.h"

namespace {

constexpr std::uint64_t BUCKETS = 53;

// The object and its semaphores, for the life of the program.
struct fuzzed_object {
    std::string name = "attest_fuzz_" + std::to_string(getpid());
    std::string path = "/dev/shm/" + name;
    int file = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    int semid = semget(ftok(path.c_str(), SEM_PROJECT), SEM_COUNT, IPC_CREAT | 0600);

    ~fuzzed_object()
    {
        semctl(semid, 0, IPC_RMID);
        shm_unlink(name.c_str());
    }
    std::unique_ptr<shmht_handle> open_table() const
    {
        return std::unique_ptr<shmht_handle>(at_create_shmht(name.c_str(), path.c_str(), 0));
    }
};

bool take_entry(byte_cursor &input, std::size_t &index, shmht_entry &entry)
{
    std::span<const std::byte> bytes;
    if (!input.get_bytes(7, bytes))
        return false;
    auto number = [&](std::size_t at) { return std::to_integer<std::uint64_t>(bytes[at]); };
    index = number(0) % (2 * BUCKETS);
    entry.in_use = static_cast<std::uint32_t>(number(1));
    entry.hash = number(2) << 8 | number(3);
    entry.next = number(4) < 128 ? number(4) : number(4) - 256; // 255 ends a chain
    entry.key_len = number(5) > 250 ? SHMHT_INSERT_NOTE : number(5);
    entry.value = number(6);
    return true;
}

void damage(byte_cursor &input, std::vector<std::byte> &object)
{
    std::span<const std::byte> header;
    std::uint8_t count = 0;
    if (!input.get_bytes(sizeof(shmht_header), header) || !input.get_le(count))
        return;
    std::memcpy(object.data(), header.data(), header.size());
    std::size_t index = 0;
    for (shmht_entry entry{}; count != 0 && take_entry(input, index, entry); --count)
        std::memcpy(object.data() + sizeof(shmht_header) + index * sizeof entry, &entry, sizeof entry);
}

void operate(shmht_handle &table, byte_cursor &input)
{
    for (std::uint8_t operation = 0; input.get_le(operation);) {
        std::string key(operation / 2, static_cast<char>(operation));
        std::uint64_t value = 0;
        if (operation % 2 == 0) {
            at_shmht_search(&table, key.data(), key.size(), &value);
            continue;
        }
        std::int32_t result = at_shmht_insert(&table, key.data(), key.size(), operation);
        require(result == SHMHT_INSERTED || result == SHMHT_FULL);
        if (result == SHMHT_INSERTED)
            require(at_shmht_search(&table, key.data(), key.size(), &value) == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const fuzzed_object fuzzed;
    byte_cursor input(std::as_bytes(std::span(data, size)));
    std::uint8_t how = 0;
    if (!input.get_le(how))
        return 0;
    bool while_open = (how & 1) != 0;
    std::vector<std::byte> object(shmht_object_size(BUCKETS));
    std::unique_ptr<shmht_handle> table;
    require(ftruncate(fuzzed.file, 0) == 0);
    if (while_open) {
        table = fuzzed.open_table();
        require(table != nullptr);
        std::memcpy(object.data(), table->header, object.size());
    }
    damage(input, object);
    // Other locks of this machine are nobody's to try.
    reinterpret_cast<shmht_header *>(object.data())->semid = static_cast<std::uint32_t>(fuzzed.semid);
    if (while_open) {
        std::memcpy(table->header, object.data(), object.size());
    } else {
        object.resize((how & 2) != 0 ? object.size() : how * std::size_t{300});
        require(pwrite(fuzzed.file, object.data(), object.size(), 0) == static_cast<ssize_t>(object.size()));
        table = fuzzed.open_table();
        require(table != nullptr);
    }
    operate(*table, input);
    return 0;
}
