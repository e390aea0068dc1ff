#include "tools/bmc_simulator/faults.h"

#include <algorithm>
#include <array>
#include <fstream>

#include "tools/bmc_simulator/report.h"

namespace {

constexpr auto FAULTS = std::to_array<fault>({
    {"login-tls-failure", transfer::login, fault_kind::tls_failure, "the TLS handshake is refused"},
    {"login-reset-handshake", transfer::login, fault_kind::reset_handshake, "reset in the TLS handshake"},
    {"login-stall-handshake", transfer::login, fault_kind::stall_handshake, "silence in the TLS handshake"},
    {"login-401", transfer::login, fault_kind::status_401, "HTTP status 401"},
    {"login-500", transfer::login, fault_kind::status_500, "HTTP status 500"},
    {"login-redirect", transfer::login, fault_kind::redirect, "HTTP status 302, to the same place"},
    {"login-stall-before-headers", transfer::login, fault_kind::stall_before_headers, "no answer"},
    {"login-stall-after-headers", transfer::login, fault_kind::stall_after_headers, "headers, no body"},
    {"login-reset-before-headers", transfer::login, fault_kind::reset_before_headers, "reset, no answer"},
    {"login-reset-after-headers", transfer::login, fault_kind::reset_after_headers, "headers, then reset"},
    {"login-no-cookie", transfer::login, fault_kind::no_cookie, "status 200, but no session"},

    {"call-tls-failure", transfer::call, fault_kind::tls_failure, "the TLS handshake is refused"},
    {"call-reset-handshake", transfer::call, fault_kind::reset_handshake, "reset in the TLS handshake"},
    {"call-stall-handshake", transfer::call, fault_kind::stall_handshake, "silence in the TLS handshake"},
    {"call-401", transfer::call, fault_kind::status_401, "HTTP status 401"},
    {"call-500", transfer::call, fault_kind::status_500, "HTTP status 500"},
    {"call-redirect", transfer::call, fault_kind::redirect, "HTTP status 302, to the same place"},
    {"call-stall-before-headers", transfer::call, fault_kind::stall_before_headers, "no answer"},
    {"call-stall-after-headers", transfer::call, fault_kind::stall_after_headers, "headers, no body"},
    {"call-reset-before-headers", transfer::call, fault_kind::reset_before_headers, "reset, no answer"},
    {"call-reset-after-headers", transfer::call, fault_kind::reset_after_headers,
     "headers and half the body, then reset"},
    {"call-one-byte-pieces", transfer::call, fault_kind::one_byte_pieces,
     "a good reply, each byte by itself"},
    {"call-slow-pieces", transfer::call, fault_kind::slow_pieces, "the same with a pause after each byte"},
    {"call-huge-reply", transfer::call, fault_kind::huge_reply, "a reply of 100 MB"},
    {"call-not-ok", transfer::call, fault_kind::not_ok, "the status \"error\""},
    {"call-status-first", transfer::call, fault_kind::status_first, "keys in another order"},
    {"call-no-data", transfer::call, fault_kind::no_data, "the status \"ok\", but no data"},
    {"call-garbage-base64", transfer::call, fault_kind::garbage_base64, "data that is no base64"},
    {"call-truncated-message", transfer::call, fault_kind::truncated_message, "a record without its end"},
});

std::string name_in(const std::string &file)
{
    std::string name;
    std::ifstream(file) >> name;
    return name;
}

} // namespace

std::span<const fault> all_faults()
{
    return FAULTS;
}

const fault *find_fault(std::string_view name)
{
    const auto *found =
        std::find_if(FAULTS.begin(), FAULTS.end(), [name](const fault &row) { return row.name == name; });
    return found == FAULTS.end() ? nullptr : found;
}

bool check_fault_file(const std::string &file)
{
    const std::string name = name_in(file);
    return name.empty() || find_fault(name) != nullptr || fail("no such fault: " + name);
}

fault_kind fault_now(const std::string &file, transfer at)
{
    const fault *chosen = find_fault(name_in(file));
    return chosen != nullptr && chosen->at == at ? chosen->kind : fault_kind::none;
}
