// The body of a certificate login, as docs/bmc-relay.md has it, from the side that checks it.
#pragma once

#include <ctime>
#include <string>

#include "tools/attest_provision/certificates.h"

inline constexpr std::time_t LOGIN_CLOCK_WINDOW_S = 300; // both clocks drift

// Who certifies the nodes that may log in.
struct login_authority {
    x509_certificate issuing_ca;
    x509_certificate root;
};

// Reads the issuing CA and the root, each in DER, one behind the other: a chain object of attest-provision.
// False with the reason said.
bool read_login_authority(const std::string &file, login_authority &into);

// Why the login is refused at the time `now`; empty: it is accepted.
std::string login_problem(const std::string &body, const login_authority &authority, std::time_t now);
