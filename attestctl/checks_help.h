// What the help says about checks.
#pragma once

#include <string>

#include "attestctl/options.h"

// A set of commands.
constexpr unsigned of(command_id id)
{
    return 1U << static_cast<unsigned>(id);
}

// Those that check certificates, which are those that check anything.
inline constexpr unsigned CERTIFICATES = of(command_id::certificate) | of(command_id::pcrs) |
                                         of(command_id::hw_integrity) | of(command_id::attest);

// The checks of the command, where it has any.
void append_checks_help(std::string &out, command_id command);
