// The Linux transport's settings and bounds.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

// From the first byte of a command to the last of its response. The slowest command that the agent asks for
// (an RSA signature on a discrete TPM) takes below a second. Who makes keys sets a longer bound.
inline constexpr std::chrono::milliseconds IPC_COMMAND_BOUND{30'000};

// The largest response a TPM 2.0 gives (TPM_PT_MAX_RESPONSE_SIZE as the PC client profile bounds it).
inline constexpr std::uint32_t IPC_MAX_MESSAGE = 4096;
inline constexpr std::uint32_t IPC_HEADER_SIZE = 10; // tag, size, response code

// Device threads that may be stuck in a driver at a time (device_relay.h): a driver that never comes back
// must not collect threads.
inline constexpr int IPC_MAX_STUCK_RELAYS = 4;

struct tpm_address {
    bool is_device;
    std::string path;
};
// What `setting` (as in ATTEST_TPM; null is the default) says. False when it says nothing.
bool tpm_address_parse(const char *setting, tpm_address &address);

// The size field of a message of which at least the header has arrived.
std::uint32_t ipc_message_size(const std::uint8_t *header);

// Another bound for this process: longer for making keys, shorter for tests. Not while a command is under
// way.
void linux_ipc_set_command_bound(std::chrono::milliseconds bound);
