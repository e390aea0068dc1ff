// Sits between a client and a software TPM, and lets a command fail as a TPM or its bus would.
#pragma once

#include <mutex>
#include <optional>

#include "tests/tpm/fake_tpm.h"
#include "tests/tpm/software_tpm.h"

class tpm_relay {
public:
    explicit tpm_relay(const software_tpm &tpm);

    std::string address() const { return "swtpm:path=" + directory_.path() + "/relay"; }

    // From the command number `after` (from 0) of this code on, each is answered so and does not reach the
    // TPM.
    void fail(std::uint32_t command_code, int after, fake_answer answer);
    void heal();
    void disconnect(); // from the TPM, for a connection of the test's own

private:
    struct fault {
        std::uint32_t command_code;
        int after;
        fake_answer answer;
    };

    fake_answer answer(int number, std::span<const std::uint8_t> command);

    temporary_directory directory_;
    std::string tpm_path_;
    unique_fd tpm_;
    std::mutex mutex_;
    std::optional<fault> fault_;
    fake_tpm server_; // last: its thread uses the others
};
