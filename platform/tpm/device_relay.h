// A thread between the library and a TPM device. No system call on a TPM device is bounded: the driver holds
// a lock while the TPM works, on which even poll and close wait. So the calls are made by a thread of their
// own, and the library waits, as long as it likes, on a socket.
#pragma once

#include <string>

#include "platform/owners.h"
#include "platform/trust_anchor_client.h"

// Opens the device and starts its thread; *socket takes commands and gives responses. Closing it ends the
// thread, as soon as the driver lets go of it, and closes the device.
kov_status device_relay_start(const std::string &path, unique_fd &socket);
