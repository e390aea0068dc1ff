// System messages: the few failures that an operator must see.
#pragma once

#include <cstdint>

// A message's constant description, with the state that the message log keeps for it.
struct message_record {
    std::uint64_t reserved0; // 0
    const char *format;      // printf-style, exactly one "%s"
    std::uint64_t *state;    // four words, the first 300, the others 0; owned by the message log
    const char *process;
    const char *facility;
    const char *mnemonic;
    std::uint64_t severity;  // syslog priority: 2 critical, 3 error
    std::uint64_t reserved1; // 0
    std::uint32_t code;
};

// Raises the message, its text formatted with the one string `argument`: to the journal, with facility,
// mnemonic, severity, code, process and text as separate fields and a message id made of the code, for which
// packaging/attestation_agent.catalog says what to do; or to stderr where there is no journal.
void emit_errmsg(const message_record *record, std::uint32_t severity, const char *argument);
