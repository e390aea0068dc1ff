// The generated list that everything is measured on, and the least that reading it costs.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ima/ima_log.h"
#include "platform/messages.h"

constexpr std::size_t CHUNK = 1000; // events that are held before they are released
// What takes long is measured part by part: the repetitions of a job take the parts by turns.
constexpr std::size_t PARTS = 9;

struct list_part {
    std::size_t records;
    std::size_t first_seen; // of them with a measurement that no earlier one has
};

struct measured_list {
    std::size_t records;
    std::string path;
    std::vector<std::uint32_t> blocks; // heap blocks of the events, 0 behind each event's last
    std::vector<std::string> keys;     // of the distinct measurements, in random order
    std::array<list_part, PARTS> parts;
};

// 1,000,000 records, or as many as ATTEST_BENCH_RECORDS says.
const measured_list &the_list();

struct list_reading {
    ima_log log;
    std::size_t next_part = 0;
    std::uint64_t event_number = 0;
    std::vector<IMA_EVENT> events = std::vector<IMA_EVENT>(CHUNK);
};

// Parses the next part, after the last the first again, into chunks of events, calls `each` for every event,
// and releases them chunk by chunk.
void parse_part(list_reading &reading, const std::function<void(IMA_EVENT &)> &each);

// The same for the whole list.
void parse_list(const std::function<void(IMA_EVENT &)> &each);

// Makes, fills and frees heap blocks of the events' sizes, chunk by chunk, and reads the file once.
void heap_and_read();
