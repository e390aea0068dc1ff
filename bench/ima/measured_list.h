// The generated list that everything is measured on, and the least that reading it costs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/messages.h"

constexpr std::size_t CHUNK = 1000; // events that are held before they are released

struct measured_list {
    std::size_t records;
    std::string path;
    std::vector<std::uint32_t> blocks; // heap blocks of the events, 0 behind each event's last
    std::vector<std::string> keys;     // of the distinct measurements, in random order
    std::size_t checked;               // events that de-duplication looks up
};

// 1,000,000 records, or as many as ATTEST_BENCH_RECORDS says.
const measured_list &the_list();

// Parses the list into chunks of events, calls `each` for every event, and releases them chunk by chunk.
void parse_list(const std::function<void(IMA_EVENT &)> &each);

// Makes, fills and frees heap blocks of the events' sizes, chunk by chunk, and reads the file once.
void heap_and_read();
