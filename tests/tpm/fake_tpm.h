// A server on a unix socket that answers TPM commands with whatever it is told to.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "platform/owners.h"

struct fake_answer {
    std::vector<std::uint8_t> bytes;
    bool hang_up = false;              // after the bytes
    std::chrono::milliseconds drip{0}; // between one byte and the next
};

class fake_tpm {
public:
    // `answer` is asked once a command, with its number on the connection, from 0; on the server's thread.
    using answerer = std::function<fake_answer(int number, std::span<const std::uint8_t> command)>;
    fake_tpm(const std::string &path, answerer answer);
    fake_tpm(const fake_tpm &) = delete;
    fake_tpm &operator=(const fake_tpm &) = delete;
    ~fake_tpm();

private:
    void serve(int connection) const;

    answerer answer_;
    std::atomic<bool> stopping_{false};
    unique_fd listening_;
    std::thread thread_;
};

// A response with this code and these parameters.
std::vector<std::uint8_t> tpm_response(std::uint32_t code, const std::vector<std::uint8_t> &parameters = {});
// What a TPM answers to ReadClock.
std::vector<std::uint8_t> clock_response();
