#include "ima/deduplication.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "agent/agent_state.h"
#include "agent/debug_trace.h"
#include "ima_cache/shm_table.h"

namespace {

constexpr char TABLE_NAME[] = "ima_unique_measurements";
constexpr char TABLE_PATH[] = "/dev/shm/ima_unique_measurements";
constexpr std::uint64_t TABLE_ENTRIES = 1'048'576;

constexpr std::size_t KEY_BUFFER_SIZE = 512;
constexpr std::size_t KEY_NAME_MAX = 256; // of a longer name only its beginning counts

// A NUL follows the key in its buffer.
struct measurement_key {
    std::array<char, KEY_BUFFER_SIZE> bytes;
    std::size_t length;
};

void make_key(const char *name, const std::uint8_t *digest, std::size_t digest_length, measurement_key &key)
{
    std::size_t name_length = strnlen(name, KEY_NAME_MAX);
    std::size_t digest_part = std::min(digest_length, KEY_BUFFER_SIZE - 1 - name_length);
    std::memcpy(key.bytes.data(), name, name_length);
    std::memcpy(key.bytes.data() + name_length, digest, digest_part);
    key.length = name_length + digest_part;
    key.bytes[key.length] = '\0';
}

} // namespace

bool create_ima_ht()
{
    at_agent_state.at_ima_ht = at_create_shmht(TABLE_NAME, TABLE_PATH, TABLE_ENTRIES);
    if (at_agent_state.at_ima_ht == nullptr)
        attest_trace("Failed to create hash table");
    return at_agent_state.at_ima_ht != nullptr;
}

std::int32_t check_and_insert_unique_ima_entry(const char *name, const std::uint8_t *digest,
                                               std::int32_t digest_length, std::uint64_t event_number)
{
    shmht_handle *table = at_agent_state.at_ima_ht;
    if (table == nullptr || name == nullptr || digest == nullptr || digest_length < 0)
        return -1;
    measurement_key key;
    make_key(name, digest, static_cast<std::size_t>(digest_length), key);
    std::uint64_t first_event = 0;
    if (at_shmht_search(table, key.bytes.data(), key.length, &first_event) == 0) {
        if (first_event == event_number)
            return 0;
        attest_trace("Found duplicate entry %lu -> %lu \n", first_event, event_number);
        return 1;
    }
    if (at_shmht_insert(table, key.bytes.data(), key.length, event_number) == SHMHT_INSERTED)
        return 0;
    attest_trace("Failed to add entry into ht for event %lu \n", event_number);
    return -1;
}

void mark_duplicate(IMA_EVENT *event, std::uint64_t index_in_chunk)
{
    constexpr std::uint32_t needed = IMA_EVENT::has_digest | IMA_EVENT::has_event_name;
    if (at_agent_state.at_ima_ht == nullptr || (event->present & needed) != needed ||
        event->digest.data == nullptr)
        return;
    std::int32_t result =
        check_and_insert_unique_ima_entry(event->event_name, event->digest.data,
                                          static_cast<std::int32_t>(event->digest.length), event->event_num);
    if (result == 1)
        attest_trace_as("at_read_local_ima_chunk_from_file", "Found a duplicate entry for %s at %lu",
                        event->event_name, index_in_chunk);
    event->duplicate = result == 1 ? 1 : 0;
    event->present |= IMA_EVENT::has_duplicate;
}
