// Logs in the JSON form of the TCG's Canonical Event Log: an array of records, each with "recnum" (from 0),
// "pcr", "digests" (a list of "hashAlg" and "digest"), "content_type" and "content". Bytes are hexadecimal.
#pragma once

#include <string>

#include "api/remote_attestation_api.pb.h"

namespace api = remote_attestation_api;

// Appends the array. Its records are "pcclient_std", with "event_type" and "event_data". False, nothing
// appended and `error` has one line, when the fields do not tell a record.
bool append_cel_boot_log(std::string &out, const api::NodeBootIntegrityLog &log, std::string &error);

// Appends one record, without a comma: "ima_template", with "template_name" and "template_data". The digests
// are what was extended: the template hash into the SHA-1 bank, SHA-256 of the template data, as kernels
// since 5.8 do it, into the other; all ones for a violation.
bool append_cel_ima_record(std::string &out, const api::IMA_EVENT &event, std::string &error);
