// What the page shows of the IMA lists: taken from the stream as it comes, because the lists themselves are
// not kept. However long a list is, what is kept of it is bounded.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "api/remote_attestation_api.pb.h"
#include "attestctl/html/markup.h"
#include "attestctl/verify/ima_list.h"

// How much of a list is kept as rows: its first events, its last ones, and the violations between. Bytes are
// those of the rows; names of 4096 bytes that are all escapes make a hundred times the row of a usual one.
inline constexpr std::uint64_t FIRST_EVENTS = 100'000, LAST_EVENTS = 10'000, VIOLATIONS_BETWEEN = 10'000;
inline constexpr std::size_t FIRST_BYTES = 64 << 20, LAST_BYTES = 8 << 20, BETWEEN_BYTES = 8 << 20;
inline constexpr std::uint64_t BLOCK_EVENTS = 1000; // that fold together on the page

struct ima_counts {
    std::uint64_t events = 0, repeats = 0, violations = 0, signatures = 0;
};

// The list's growth: counts of equal numbers of events, in order. When there are MOST_STEPS, two become one.
inline constexpr std::size_t MOST_STEPS = 256;
struct ima_growth {
    std::uint64_t step_events = 1;
    std::vector<ima_counts> steps;
};

struct ima_row {
    std::uint64_t number = 0;
    ima_counts counts; // of this event
    html row;
};

// Rows that follow each other in the list.
struct ima_block {
    std::uint64_t first = 0, last = 0;
    ima_counts counts;
    html rows;
};

struct shown_ima_list {
    std::string source; // as the messages name it
    ima_counts counts{};
    std::uint64_t first_number = 0, last_number = 0;
    std::vector<std::pair<std::string, std::uint64_t>> templates{}; // and how many events have them
    ima_growth growth{};
    std::vector<ima_block> first{};
    std::size_t first_bytes = 0;
    bool first_is_full = false;
    std::vector<ima_row> between{}; // violations
    std::size_t between_bytes = 0;
    std::deque<ima_row> last{};
    std::size_t last_bytes = 0;
    std::uint64_t left_out = 0;
};

// Takes one message of the stream. A list that begins again, because it is asked for anew, takes the place of
// what came of it before; events that were verified earlier, and are not looked at again, are left out.
void take_ima_rows(std::vector<shown_ima_list> &lists, const remote_attestation_api::NodeIMAData &message,
                   const ima_start &start);

void add_to_growth(ima_growth &growth, const ima_counts &event);
