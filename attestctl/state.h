// How far the IMA lists of nodes have been verified, kept in the file of --state.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "attestctl/evidence.h"
#include "attestctl/kept_file.h"

struct verified_lists {
    kept_file file;
    std::map<std::string, std::vector<remembered_list>> nodes; // by target
};

// Reads the file; one that does not exist has no node. False, and `error` has one line.
bool read_state(const std::string &path, verified_lists &into, std::string &error);

// Replaces the file where something has changed. False, and `error` has one line.
bool write_state(verified_lists &state, std::string &error);

// What is to be remembered of evidence that was verified: each source that has a list, an attestation key and
// a quote.
std::vector<remembered_list> lists_to_remember(const evidence &got);

// From where on the lists of this evidence, which has its certificates and quotes, can be asked for.
ima_start start_after(const std::vector<remembered_list> &remembered, const evidence &got);
