// The BMC's REST server.
#pragma once

#include <string>

#include "tools/bmc_simulator/evidence_node.h"
#include "tools/bmc_simulator/login.h"

struct server_settings {
    std::string host;
    int port = 0;
    std::string client_ca_file; // of the client certificates that may log in
    std::string fault_file;
    login_authority authority;
};

// Serves until the process is ended; each transfer is a line on stderr. False with the reason said.
bool serve(const server_settings &settings, evidence_node &node);
