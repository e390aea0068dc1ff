// Retrievals of a measurement list, whole or as a stream, with and without a cache: every event that comes is
// compared with the list, and what a client has been sent is kept.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/agent_state.h"
#include "ima_cache/cache_block.h"
#include "platform/remote_attestation_api.h"
#include "tests/ima_cache/cache_of_test.h"
#include "tests/support/ima_list.h"

inline constexpr remote_attestation_api_client CLIENT = 77;
inline constexpr std::uint64_t LENGTH = 7500; // of the list, in events
inline constexpr std::uint64_t ALL = 0;
inline constexpr unsigned LIST_KINDS = IMA_KIND_OLD | IMA_KIND_NG | IMA_KIND_SIG | IMA_KIND_LISTED;

inline constexpr std::int32_t PAUSE = -3;
inline constexpr std::int32_t FAIL = -1;

// What the client has been sent, and which message it does not take.
struct sent_messages {
    int refused = -1; // the number of the send, from 0
    std::int32_t result = 0;
    int sends = 0;
    bool refuses_end = false; // once
    std::vector<std::uint64_t> numbers;
    std::vector<std::size_t> sizes; // of the messages
    std::uint64_t context = 0;
};
extern sent_messages sent;

// Forgets what was sent; the send of this number has this result.
void refuse_send(int number, std::int32_t result);

const std::string &list_bytes();
std::vector<std::uint64_t> numbers(std::uint64_t first, std::uint64_t last);

struct answer {
    std::uint32_t status = 0;
    std::vector<std::uint64_t> numbers;
    std::uint32_t present = 0;
};

class retrieval_of_test : public cache_of_test {
protected:
    retrieval_of_test();
    ~retrieval_of_test() override;

    static void write_list(std::string_view bytes);
    static answer ask(std::uint64_t start, std::uint64_t count, int stream = 0, std::uint64_t unsent = 0);
    // A stream from its begin to its end, resumed as often as it is paused: everything that came.
    static std::vector<std::uint64_t> stream(std::uint64_t start, std::uint64_t count);
    // The cache, filled by a request for everything.
    static void fill_cache();
};
