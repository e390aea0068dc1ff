// Asking a node. gRPC is known in client.cc alone.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "api/remote_attestation_api.pb.h"
#include "attestctl/options.h"

namespace api = remote_attestation_api;

// A connection to one node, made when the first question needs it.
struct client;

struct client_deleter {
    void operator()(client *c) const noexcept;
};
using client_owner = std::unique_ptr<client, client_deleter>;

// Reads the TLS files that the settings name. Without an owner `error` has one line that says which file and
// why.
client_owner make_client(const settings &chosen, std::string &error);

// No question of this client waits beyond this moment from now on.
void wait_until(client &c, std::chrono::steady_clock::time_point latest);

enum class ask_status {
    answered,
    unreachable, // no connection came about
    failed,      // the call ended with an error
    timed_out,   // nothing came within the time limit
    stopped,     // the taker wanted no more, or the user interrupted
};

struct ask_result {
    ask_status status = ask_status::answered;
    // One line for a person; empty when answered or stopped.
    std::string text;
};

// One question, one answer; the answer is only filled when `answered`. IMA lists have at
// most settings.largest_answer, boot logs 16 MiB, all other answers 4 MiB.
ask_result ask(client &c, const api::get_certificate_request &request, api::get_certificate_response &answer);
ask_result ask(client &c, const api::attest_pcr_request &request, api::attest_pcr_response &answer);
ask_result ask(client &c, const api::get_platform_boot_integrity_event_logs_request &request,
               api::get_platform_boot_integrity_event_logs_response &answer);
ask_result ask(client &c, const api::get_platform_hw_integrity_request &request,
               api::get_platform_hw_integrity_response &answer);
ask_result ask(client &c, const api::get_platform_ima_event_logs_request &request,
               api::get_platform_ima_event_logs_response &answer);

// Takes one message of a stream; false ends it. The next message is only asked for after the taker has
// returned, so that no more than one message and gRPC's window is in memory.
using message_taker = std::function<bool(const api::NodeIMAData &message)>;

// The list as a stream. `wants_to_stop` is asked several times a second, also while nothing comes.
ask_result ask_stream(client &c, const api::get_platform_ima_event_logs_request &request,
                      const message_taker &take, const std::function<bool()> &wants_to_stop);
