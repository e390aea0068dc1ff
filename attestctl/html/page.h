// An attestation as one page that needs nothing else: no network, no script, no second file.
#pragma once

#include <ctime>
#include <span>
#include <string>
#include <vector>

#include "attestctl/check.h"
#include "attestctl/evidence.h"
#include "attestctl/html/ima_events.h"
#include "attestctl/verify/roots.h"

// Nothing here is owned.
struct page_input {
    const std::string &target; // where the evidence is from, fit to be read
    std::time_t asked_at;
    const evidence &got;
    const std::vector<shown_ima_list> &ima_lists;
    std::span<const check> checks;
    const trusted_roots &roots;
    const std::string &trouble; // what ended the asking early, one line; empty: nothing did
    bool is_saved = false;      // it comes from a directory, which also says what was asked
};

std::string attestation_page(const page_input &input);
