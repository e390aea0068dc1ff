// The page of --html while the evidence for it comes.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "attestctl/check.h"
#include "attestctl/evidence.h"
#include "attestctl/html/ima_events.h"
#include "attestctl/options.h"
#include "attestctl/verify/roots.h"

// Without a path nothing is kept and nothing written.
struct page_file {
    std::string path;
    std::time_t asked_at = 0;
    std::vector<shown_ima_list> ima_lists;
    std::string trouble; // what ended the asking early; empty: nothing did
};

// Before anything is asked. False, and `error` has one line, when the page cannot be written.
bool begin_page(const settings &chosen, page_file &page, std::string &error);

void take_for_page(page_file &page, const remote_attestation_api::NodeIMAData &message,
                   const ima_start &start);

// Puts the page in place. False, and `error` has one line, when it cannot be; what was there stays.
bool write_page(const settings &chosen, const page_file &page, const evidence &got,
                std::span<const check> checks, const trusted_roots &roots, std::string &error);
