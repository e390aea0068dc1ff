// How the firmware laid a boot log out, as far as the fields of its events still tell.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "api/remote_attestation_api.pb.h"

namespace api = remote_attestation_api;

// A digest algorithm of the log's Spec ID event.
struct listed_algorithm {
    std::uint16_t tpm_id;
    std::uint16_t size;
};

struct boot_log_layout {
    // Events after the first have one digest of each listed algorithm; otherwise all have one of SHA-1.
    bool is_crypto_agile = false;
    std::vector<listed_algorithm> listed;
};

// False, and `error` has one line, when the log's first event does not tell, or an event lacks a field or
// does not fit into the layout.
bool find_layout(const api::NodeBootIntegrityLog &log, boot_log_layout &layout, std::string &error);

// The TPM's identifier of a digest's algorithm; none where the layout has no such digest, or several that it
// could be. The first event's digest is of SHA-1 in either layout.
std::optional<std::uint16_t> algorithm_of(const boot_log_layout &layout, bool is_first,
                                          const api::BOOT_EVENT_DIGEST &digest);
