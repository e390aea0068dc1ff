// What a quote says, to be shown. Nothing here is judged.
#pragma once

#include <cstdint>
#include <string>

#include "attestctl/verify/pcr_set.h"

struct quote_facts {
    bool readable = false; // a whole TPMS_ATTEST of type quote; else nothing else here means anything
    std::string nonce;
    std::string banks; // "SHA-256"
    pcr_set pcrs;      // of all banks
    std::uint64_t clock_ms = 0;
    std::uint32_t resets = 0, restarts = 0;
    std::uint64_t firmware = 0;
};

quote_facts read_quote(const std::string &quote);
