// Everything that a node is asked for in one attestation.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "attestctl/client.h"
#include "attestctl/verify/ima_list.h"
#include "attestctl/verify/quote.h"

// Bytes of one message that is judged: a node's stream comes in small ones, a management controller's list in
// one of 48 MiB at most.
inline constexpr int LARGEST_MESSAGE = 64 << 20;

// What came of one kind of evidence.
struct arrival {
    std::string kind;
    bool came = false;
    std::size_t sources = 0; // records, one a source
    std::string text;        // what is in them, or why nothing came; one line, fit for a terminal
    bool answered = true;    // false: there is no answer at all, not even an empty one
};

// The row of an answer.
arrival arrival_of(const char *kind, const api::get_certificate_response &answer);
arrival arrival_of(const char *kind, const api::attest_pcr_response &answer);
arrival arrival_of(const char *kind, const api::get_platform_boot_integrity_event_logs_response &answer);
arrival arrival_of(const char *kind, const api::get_platform_hw_integrity_response &answer);

// The row of an IMA list that comes in messages.
struct ima_arrival {
    std::uint64_t events = 0;
    std::vector<std::string> nodes;
    bool cut_short = false; // a node that cannot go on ends the stream with a message that names none
};
void note_message(ima_arrival &state, const api::NodeIMAData &message);
arrival arrival_of(const ima_arrival &state);

// The names of the kinds, which make the rows of `evidence::arrivals`.
inline constexpr const char *IDENTITY_KIND = "identity certificates";
inline constexpr const char *ATTESTATION_KEY_KIND = "attestation key certificates";
inline constexpr const char *PCRS_KIND = "pcrs";
inline constexpr const char *BOOT_LOG_KIND = "boot-log";
inline constexpr const char *IMA_LOG_KIND = "ima-log";
inline constexpr const char *HW_INTEGRITY_KIND = "hw-integrity";

// What is known of a source's IMA list from an attestation before.
struct remembered_list {
    std::string source;
    std::string key; // SHA-256 of the attestation key's certificate
    boot_counts boot;
    ima_position position;
};

// What was asked with which nonce, and the answers. The IMA list may be of any length: it is replayed as it
// comes and not kept.
struct evidence {
    api::get_certificate_request identity_request, attestation_key_request;
    api::get_certificate_response identity, attestation_key;
    api::attest_pcr_request pcrs_request;
    api::attest_pcr_response pcrs;
    api::get_platform_boot_integrity_event_logs_response boot_log;
    api::get_platform_hw_integrity_request hw_integrity_request;
    api::get_platform_hw_integrity_response hw_integrity;
    std::vector<remembered_list> remembered;
    ima_start start; // of the lists: after what is remembered, as far as it still holds
    std::optional<std::chrono::steady_clock::time_point> deadline; // of the whole
    std::vector<ima_list> ima_lists;
    std::vector<arrival> arrivals;
};

// Asks for all kinds, each request with a fresh nonce of its own, the quote before the logs: a log may have
// grown since the quote, never the other way round. Of the IMA list only what comes after the remembered
// positions is asked for; a list that does not go on from there to the quote is asked for again from its
// begin. `take_ima` gives the messages to take_ima_message. A kind that fails is an arrival that says so; a
// node that cannot be reached or stops answering ends it, with the result of that call.
ask_result fetch_evidence(client &c, const message_taker &take_ima, evidence &into);

// Asks for the certificates of the keys that sign, each with a fresh nonce: the device identity's and, if
// wanted, the attestation key's; those whose request has a nonce have been asked for. Ends as
// `fetch_evidence` does.
ask_result fetch_signers(client &c, bool attestation_key_too, evidence &into);
