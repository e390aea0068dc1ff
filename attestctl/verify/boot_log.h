// The boot event log, replayed.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "api/remote_attestation_api.pb.h"
#include "attestctl/check.h"
#include "attestctl/verify/hashes.h"
#include "attestctl/verify/pcr_set.h"
#include "attestctl/verify/quote.h"

// Firmware (0 to 7), boot loader (8, 9) and shim (14) extend these and nobody else does: the log accounts for
// all that is in them, also where it has no event of one. A running system extends the others too.
inline constexpr pcr_set PCRS_OF_THE_LOG = 0x43ff;

// What the PCRs of one bank are after the events of a log.
struct pcr_replay {
    std::string problem; // one line, why there is no replay; empty: there is one
    std::array<std::string, PCR_COUNT> values;
    pcr_set extended; // those that an event was extended into
};

// PCRs begin with zeros, 17 to 22 with ones, PCR 0 with the locality from which the firmware started the TPM.
// EV_NO_ACTION events are not extended; every other event must have a digest of the bank.
pcr_replay replay(const remote_attestation_api::NodeBootIntegrityLog &log, const hash_algorithm &bank);

// Adds the rows "boot log events" (whole and in order) and "boot log replay" (against the quoted values;
// none: nullptr).
void check_boot_log(check_list &list, const remote_attestation_api::NodeBootIntegrityLog &log,
                    const pcr_list *quoted);
