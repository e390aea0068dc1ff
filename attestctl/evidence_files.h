// Evidence in a directory: what was asked with which nonces and what came, a message of the contract a file.
//
//   identity.request         identity.response          get_certificate_request and _response
//   attestation-key.request  attestation-key.response   the same
//   pcrs.request             pcrs.response              attest_pcr_request and _response
//                            boot-log.response          get_platform_boot_integrity_event_logs_response
//   hw-integrity.request     hw-integrity.response      get_platform_hw_integrity_request and _response
//   ima-log.messages         NodeIMAData as they came, each after its length (varint)
//   SHA256SUMS               of all the others, as sha256sum writes and checks it
//
// A question that was not answered has no file for the answer. SHA256SUMS is written last: a directory
// without it is not whole.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "attestctl/evidence.h"

// A directory that is being written.
struct evidence_directory;

// Removes what has been written unless `save_evidence` has made it whole.
struct evidence_directory_deleter {
    void operator()(evidence_directory *directory) const noexcept;
};
using evidence_directory_owner = std::unique_ptr<evidence_directory, evidence_directory_deleter>;

// Makes the directory, which must not be there yet. None, and `error` has one line, when that fails.
evidence_directory_owner make_evidence_directory(const std::string &path, std::string &error);

// Adds a message of the IMA stream. What goes wrong is kept for `save_evidence` to say.
void save_ima_message(evidence_directory &directory, const api::NodeIMAData &message);

// Writes all but the IMA list, and makes the directory whole. False, and `error` has one line, when anything
// could not be written.
bool save_evidence(evidence_directory &directory, const evidence &got, std::string &error);

// Reads a directory into `got`, which is empty; the IMA list's messages go to `take_ima`, after the rest has
// been read. False, and `error` has one line, when a file is missing, or not what it should be.
bool load_evidence(const std::string &path, const std::function<void(const api::NodeIMAData &)> &take_ima,
                   evidence &got, std::string &error);
