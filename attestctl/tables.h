// Evidence as tables for a person. All text is appended and ends with a line break; nothing in it is judged.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "api/remote_attestation_api.pb.h"

namespace api = remote_attestation_api;

// "node NAME, up 1 d 02:03:04": what a record says about where it comes from. No name: nullptr.
std::string source_text(const std::string *node_name, std::optional<std::uint64_t> uptime_s);

// "1 d 02:03:04"
std::string uptime_text(std::uint64_t seconds);

void append_table(std::string &out, const api::get_certificate_response &answer);
void append_table(std::string &out, const api::attest_pcr_response &answer);
void append_table(std::string &out, const api::get_platform_boot_integrity_event_logs_response &answer);
void append_table(std::string &out, const api::get_platform_hw_integrity_response &answer);

// "sha256": the algorithm of an event's digest, "unknown" where neither number nor length tells.
std::string digest_algorithm_text(const api::BOOT_EVENT_DIGEST &digest);

// The IMA list is not rendered whole: a million events are 300 MB of text.
void append_ima_head(std::string &out, const api::NodeIMAData &record);
void append_ima_event(std::string &out, const api::IMA_EVENT &event);
