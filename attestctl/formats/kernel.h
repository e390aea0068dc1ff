// Logs as the kernel's binary files in securityfs have them, written back from the fields of the contract.
#pragma once

#include <string>

#include "api/remote_attestation_api.pb.h"

namespace api = remote_attestation_api;

// Appends binary_bios_measurements. False, nothing appended and `error` has one line, when the fields do not
// tell every byte.
bool append_kernel_boot_log(std::string &out, const api::NodeBootIntegrityLog &log, std::string &error);

// Appends one record of binary_runtime_measurements; the same when it fails. The template hash proves that
// the record is what the kernel wrote; a violation has none, and is taken to be as kernels write them.
bool append_kernel_ima_record(std::string &out, const api::IMA_EVENT &event, std::string &error);

// The template data of the event. False, and `error` has one line, when the fields do not tell it: some are
// absent, of a template with further fields, or not what the template hash is of.
bool prove_template_data(const api::IMA_EVENT &event, std::string &data, std::string &error);
