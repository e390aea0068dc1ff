// The unique identifiers in a raw SMBIOS table.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "platform/tpm/board_identifiers.h"

// Appends what the table's structures tell, up to the first that does not fit into it.
void smbios_identifiers(std::span<const std::byte> table, std::vector<board_identifier> &identifiers);
