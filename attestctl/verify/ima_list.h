// The IMA list, replayed as it comes: of a list of any length only the state of the replay is kept.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "api/remote_attestation_api.pb.h"
#include "attestctl/check.h"
#include "attestctl/verify/hashes.h"
#include "attestctl/verify/pcr_set.h"

// Sources whose evidence is looked at: a node and its management controller are two, more than this is no
// node.
inline constexpr std::size_t MOST_SOURCES = 16;

// A place in a list up to which it has been verified: what was quoted of the PCRs that its events were
// extended into.
struct ima_position {
    struct pcr {
        std::uint32_t index = 0;
        std::string value;   // of the quoted bank
        bool padded = false; // the events were extended as SHA-1 hashes with zeros behind them
    };
    std::uint64_t event = 0; // the number of the last verified event
    std::vector<pcr> pcrs;   // PCR 10 is always among them
};

// From where on lists are replayed: after the positions of the sources that have one, otherwise from the
// beginning.
struct ima_start {
    std::uint64_t asked_after = 0; // of the request
    std::map<std::string, ima_position> positions;
    std::map<std::string, std::string> notes; // why a source has no position although it once had; one line
};

// One PCR that the list's events were extended into.
struct ima_pcr {
    bool extended = false;
    const std::string *quoted = nullptr; // none: no record of the source has it
    // After the events so far: by the bank's own hash of the template data, and, as kernels before 5.8 do it,
    // by the SHA-1 template hash with zeros behind it.
    sha256_digest native, padded;
    bool native_known = true, padded_known = true;
    std::uint64_t unknown_data = 0; // the first event whose template data cannot be rebuilt; 0: none
    bool equal = false, was_equal = false;
    bool equal_padded = false; // how the value was equal the last time
};

// The list of one source.
struct ima_list {
    std::string source;            // as the messages name it
    std::string note;              // what is to be said about where it began; may be empty
    std::uint64_t begun_after = 0; // the last event that had been verified before
    std::uint64_t events = 0;      // after that one
    std::uint64_t violations = 0, duplicates = 0;
    std::uint64_t next_number = 1;
    bool begun = false;                       // an event came
    std::uint64_t hashed = 0;                 // template hashes that were recomputed
    std::uint64_t not_rebuilt = 0;            // events of templates whose data is not in the answer
    std::string number_problem, hash_problem; // of the first event that has one; one line
    std::array<ima_pcr, PCR_COUNT> pcrs;
    unsigned unequal = 0;        // PCRs that are not as quoted after the events so far
    bool met_quote = false;      // they all were
    std::uint64_t met_after = 0; // the last event after which they were
    std::string data;            // room for the template data of an event
};

// Takes one message of a stream. `quotes` is the answer with the quoted values, got before the list; it
// outlives the lists.
void take_ima_message(std::vector<ima_list> &lists, const remote_attestation_api::NodeIMAData &message,
                      const remote_attestation_api::attest_pcr_response &quotes, const ima_start &start = {});

// Whether the list goes on from where it had been verified and leads to the quote.
bool is_continued(const ima_list &list);

// The position of a list that met its quote.
ima_position position_of(const ima_list &list);

// Adds the rows "IMA list numbers", "IMA list hashes" and "IMA list replay".
void check_ima_list(check_list &rows, const ima_list &list);

// True for an event that the kernel recorded for a file that changed while it was measured: its template hash
// is zeros only.
bool is_violation(const remote_attestation_api::IMA_EVENT &event);

// The template data of the event, as the kernel hashed it, into `data`. False where it is not all in the
// event's fields.
bool rebuild_template_data(const remote_attestation_api::IMA_EVENT &event, std::string &data);
