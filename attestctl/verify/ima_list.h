// The IMA list, replayed as it comes: of a list of any length only the state of the replay is kept.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "api/remote_attestation_api.pb.h"
#include "attestctl/check.h"

// One PCR that the list's events were extended into.
struct ima_pcr {
    bool extended = false;
    const std::string *quoted = nullptr; // none: no record of the source has it
    // After the events so far: by the bank's own hash of the template data, and, as kernels before 5.8 do it,
    // by the SHA-1 template hash with zeros behind it.
    std::string native, padded;
    std::uint64_t extends = 0;
    std::uint64_t native_equal = 0, padded_equal = 0; // extends after which the value was the quoted one
    bool was_equal_natively = false, was_equal_padded = false;
    std::uint64_t unknown_data = 0; // the first extend whose template data cannot be rebuilt; 0: none
};

// The list of one source.
struct ima_list {
    std::string source; // as the messages name it
    std::uint64_t events = 0;
    std::uint64_t violations = 0, duplicates = 0;
    std::uint64_t next_number = 1;
    std::uint64_t hashed = 0;                 // template hashes that were recomputed
    std::uint64_t not_rebuilt = 0;            // events of templates whose data is not in the answer
    std::string number_problem, hash_problem; // of the first event that has one; one line
    std::array<ima_pcr, 24> pcrs;
};

// Takes one message of a stream that began at the list's begin. `quotes` is the answer with the quoted
// values, got before the list; it outlives the lists.
void take_ima_message(std::vector<ima_list> &lists, const remote_attestation_api::NodeIMAData &message,
                      const remote_attestation_api::attest_pcr_response &quotes);

// Adds the rows "IMA list numbers", "IMA list hashes" and "IMA list replay".
void check_ima_list(check_list &rows, const ima_list &list);

// The template data of the event, as the kernel hashed it, into `data`. False where it is not all in the
// event's fields.
bool rebuild_template_data(const remote_attestation_api::IMA_EVENT &event, std::string &data);
