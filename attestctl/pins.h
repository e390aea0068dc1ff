// What nodes were like when they were verified first, kept in the file of --pin and demanded ever after.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "attestctl/check.h"
#include "attestctl/evidence.h"
#include "attestctl/kept_file.h"

// What one source had. What is not there is not demanded: a user may take pins out of the file, and put
// further PCRs in.
struct pinned_source {
    std::string source;                                             // see source_name
    std::optional<std::string> identity_root, attestation_key_root; // SHA-256 of the certificates
    std::optional<std::string> identity_key, attestation_key;       // SHA-256 of the public keys in DER
    std::map<std::uint32_t, std::string> pcrs;                      // of the quoted bank
    std::optional<std::vector<std::string>> references;             // digests of the chips as recorded
};

struct node_pins {
    kept_file file;
    std::map<std::string, std::vector<pinned_source>> nodes; // by target
};

// Reads the file; one that does not exist has no node. False, and `error` has one line.
bool read_pins(const std::string &path, node_pins &into, std::string &error);

// Replaces the file where something has changed. False, and `error` has one line.
bool write_pins(node_pins &pins, std::string &error);

// What is to be pinned of a node that was verified: roots and keys, PCRs 0 to 9, 14 and 15, which are the
// same after each boot of the same software, and the recorded digests.
std::vector<pinned_source> pins_of(const evidence &got);

// Adds a row for each kind of pin that holds, and one for each single thing that is not as pinned, old
// against new. A source that has come or gone fails.
void check_pins(std::vector<check> &rows, const std::vector<pinned_source> &pinned, const evidence &got);

// Whether the pins demand both roots of each source.
bool pins_have_roots(const std::vector<pinned_source> &pinned);
