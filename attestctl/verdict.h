// What the commands for one kind of evidence do with an answer once it has been shown.
#pragma once

#include <optional>
#include <span>

#include "attestctl/client.h"
#include "attestctl/evidence.h"
#include "attestctl/options.h"
#include "attestctl/verify/judge.h"

// The roots that the user trusts for the node itself and, where they are other ones, for its management
// controller.
struct chosen_roots {
    trusted_roots node;
    std::optional<trusted_roots> bmc;

    const trusted_roots *for_bmc() const { return bmc ? &*bmc : nullptr; }
};

// False, and a complaint, when a file cannot be read.
bool read_chosen_roots(const settings &chosen, chosen_roots &roots);

// Asks for the certificates that are still needed, judges the subjects, shows checks and verdict, and gives
// the exit status. With --json that is one object on a line of its own.
int conclude(const settings &chosen, client &c, evidence &got, std::span<const subject> subjects,
             const chosen_roots &roots);
