// How far a stream is, on one line of the terminal that the error output is; elsewhere nothing is drawn.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "api/remote_attestation_api.pb.h"

struct stream_progress {
    std::uint64_t events = 0;
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;      // of the messages as they travel
    std::uint64_t last_event = 0; // the number of the last event that came; 0: none
    bool on_terminal = false;
    bool drawn = false;
    std::chrono::steady_clock::time_point started{}, last_drawn{};
};

stream_progress start_progress();

void count_message(stream_progress &progress, const remote_attestation_api::NodeIMAData &message);

// Draws the line, a few times a second at most; wipes it, which anything else that is written must be
// preceded by.
void draw_progress(stream_progress &progress);
void wipe_progress(stream_progress &progress);

// "2,675 events (the last is number 2,675) in 3 messages, 0.9 MB"
std::string received_text(const stream_progress &progress);
