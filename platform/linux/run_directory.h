// Where the agent keeps what lives as long as it runs, and where attest-trace looks for it.
#pragma once

#include <string>

// ATTEST_RUN_DIR; else the first of RUNTIME_DIRECTORY, as the service manager sets it; else
// /run/attestation_agent. A setting that is empty counts as not set.
std::string run_directory();
