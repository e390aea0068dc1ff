// The sources of a node's evidence: the node itself, its management controller.
#pragma once

#include <string>
#include <vector>

#include "attestctl/evidence.h"

// The records of one source; none of a kind: nullptr. They are the evidence's own.
struct source {
    std::string name; // as the records have it
    const api::SystemCertificates *identity = nullptr, *attestation_key = nullptr;
    const api::NodePCRData *pcrs = nullptr;
    const api::NodeBootIntegrityLog *boot_log = nullptr;
    const api::tpm_hw_integrity *hw_integrity = nullptr;
};

// One for each source that any of these kinds of evidence came from, the node itself first. Sources are told
// apart by the names of their nodes, and those of the same name by their order. False: there are more than a
// node can have.
bool sort_by_source(const evidence &got, std::vector<source> &sources);

// In bytes; the contract says 31, and a management controller adds a word.
inline constexpr std::size_t LONGEST_SOURCE_NAME = 64;

// The name of sources[index], fit for a terminal; different where the sources are.
std::string source_name(const std::vector<source> &sources, std::size_t index);

// The source's list; none came: nullptr.
const ima_list *ima_list_of(const evidence &got, const source &from);
