// What the command line says.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

enum class command_id { certificate, pcrs, boot_log, ima_log, hw_integrity, attest, none };

// As what a log is written.
enum class log_format {
    table,    // or, with --json, the answer
    cel_json, // Canonical Event Log
    raw,      // as the kernel has it
};

struct settings {
    command_id command = command_id::none;

    // Where to ask, and how to be known there. With TLS all three files are given, without it none.
    std::string target = "127.0.0.1:50551";
    std::string ca_file, cert_file, key_file;
    std::string server_name; // the name that the node's certificate carries; empty: the target's host
    // For an answer; for a stream the longest time without a message.
    std::chrono::milliseconds timeout{30000};

    bool json = false;

    // Many nodes instead of one.
    std::string targets_file;
    std::size_t jobs = 32;
    std::chrono::milliseconds node_timeout{600000};       // for all that one of them is asked for
    int largest_answer = std::numeric_limits<int>::max(); // bytes of a message that is taken; no option

    std::string root_file;     // of certificates that evidence is verified against; empty: any root will do
    std::string bmc_root_file; // the same for a management controller's; empty: as for the node's own

    std::string html_file; // where a page of the attestation goes; empty: none is written

    std::string state_file; // how far IMA lists have been verified; empty: nothing is remembered
    std::string pin_file;   // what nodes were like when they were verified first; empty: nothing is demanded

    // Of the commands. Nonces are bytes here; absent: a fresh one.
    std::optional<std::string> cert_name;
    std::optional<std::string> nonce;
    std::vector<std::uint32_t> pcrs;
    std::optional<std::uint64_t> start, count;
    bool stream = false;
    log_format format = log_format::table;
    std::string source; // the name of the node whose log it is; empty: the only one that comes
    std::optional<std::uint32_t> hash_algo;
    std::string save_directory, from_directory; // of evidence in files; empty: not wanted
};

enum class parse_outcome {
    run,   // `chosen` holds what to do
    show,  // `text` is what was asked for: a help or the version
    usage, // `text` is one line that says what is wrong
};

struct parsed {
    parse_outcome outcome = parse_outcome::usage;
    settings chosen;
    std::string text;
};

// Whether it is HOST:PORT.
bool is_target(std::string_view text);

// `arguments` without the program's name. Options stand before or after the command, as "--name value" or
// "--name=value".
parsed parse_command_line(std::span<const char *const> arguments);
