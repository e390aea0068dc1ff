// What a management controller can do wrong: a row each, switched on by name while the simulator runs.
#pragma once

#include <span>
#include <string>
#include <string_view>

// The two transfers of a relayed operation.
enum class transfer { login, call };

enum class fault_kind {
    none,
    // while TLS is set up
    tls_failure,
    reset_handshake,
    stall_handshake,
    // once the request has been read
    status_401,
    status_500,
    redirect,
    stall_before_headers,
    stall_after_headers,
    reset_before_headers,
    reset_after_headers,
    no_cookie,
    // in the reply of a call that was answered
    one_byte_pieces,
    slow_pieces,
    huge_reply,
    not_ok,
    status_first,
    no_data,
    garbage_base64,
    truncated_message,
};

struct fault {
    std::string_view name; // the transfer, a hyphen, what goes wrong
    transfer at;
    fault_kind kind;
    std::string_view help;
};

std::span<const fault> all_faults();
// Null when there is none of the name.
const fault *find_fault(std::string_view name);

// False when the file holds the name of no fault, with the reason said.
bool check_fault_file(const std::string &file);

// What is to go wrong now with this transfer. `file` holds the name of a fault, and is read at each question;
// one that is not there, or empty, is none.
fault_kind fault_now(const std::string &file, transfer at);
