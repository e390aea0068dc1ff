// Sources of evidence and a transport that do what a test tells them. Records are filled with memory of their
// own, so that a record that is not released, or released twice, shows under the address sanitizer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace scripted {

struct sent_message {
    int last;
    std::uint32_t rpc_status;
    std::uint32_t request_id;
    std::vector<std::string> records{}; // node names, in order
    std::optional<std::string> nonce{};
    std::uint32_t flags = 0;
    std::vector<std::uint64_t> event_numbers{}; // of a stream message
};

struct script {
    std::uint32_t local_status = 0;
    std::uint32_t bmc_status = 0;
    std::uint16_t cards = 0;
    std::uint64_t stream_events = 0;     // events that the retrieval leaves for the final message
    std::int32_t stream_send_result = 0; // what the stream's send returns

    // What was seen.
    std::vector<std::string> asked; // sources in the order asked
    std::vector<sent_message> sent;
    std::uint64_t start_event = 0;
    std::uint64_t event_count = 0;
    std::uint64_t unsent = 0;
    int stream = -1;
    std::uint64_t user_context = 0;
    int buffering = -1;
};

extern script now;

} // namespace scripted
