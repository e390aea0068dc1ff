// Cards without a CPU of their own, for which this node would report. No board has a way to ask them yet, so
// none is reported; the handler makes room for them.
#pragma once

#include <cstdint>

#include "platform/messages.h"

std::uint32_t get_max_cpuless_cards();

// Appends the cards' records to the array `records` from index `first` on and sets *added to their number. 0
// or a status.
std::uint32_t get_cpuless_cards_hw_integrity(const get_platform_hw_integrity_request *request,
                                             tpm_hw_integrity *records, std::uint32_t first,
                                             std::uint16_t *added);
