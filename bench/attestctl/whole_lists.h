// The lists that attestctl is measured on, as the kernel writes them and as a node sends them.
#pragma once

#include <string>
#include <vector>

#include "api/remote_attestation_api.pb.h"

struct ima_sample {
    std::string path;                   // of the kernel's list
    std::string sha1_pcrs, sha256_pcrs; // of the files with PCR 10 after it, as evmctl reads them
    std::vector<std::string> messages;  // of a stream, a thousand events each
    std::vector<std::string> data;      // template data of the events; of a violation empty
    remote_attestation_api::attest_pcr_response quotes;
};

// 1,000,000 events, or as many as ATTEST_BENCH_RECORDS says.
const ima_sample &the_ima_list();

struct boot_sample {
    std::string path;    // of the firmware's log
    std::string message; // NodeBootIntegrityLog
    remote_attestation_api::NodePCRData quoted;
};

// 10,000 events with digests of two banks.
const boot_sample &the_boot_log();
