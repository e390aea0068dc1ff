// The keys and certificates that the two ends of the TLS connection have.
#pragma once

#include <string>

#include "tools/attest_provision/certificates.h"

// Names of the files in the directory of credentials.
inline constexpr char CLIENT_FILE[] = "cert.pem"; // the agent's: private key and certificate
inline constexpr char CLIENT_CA_FILE[] = "ca.pem";

// Makes the two files where they are missing; the CA's own key ends with this call. False with the reason
// said.
bool make_client_credentials(const std::string &directory);

// The simulator's own, made anew at each start: clients do not verify it.
struct server_identity {
    evp_pkey key;
    x509_certificate certificate;
};
bool make_server_identity(server_identity &made);
