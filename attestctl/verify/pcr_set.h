// Sets of PCRs, and how they are written.
#pragma once

#include <bitset>
#include <cstdint>
#include <string>

// PCRs of a TPM for PCs and servers.
inline constexpr std::uint32_t PCR_COUNT = 24;

// What a byte of a PCR is after a reset: those of the dynamic launch start as ones, all others as zeros.
constexpr unsigned char pcr_reset_byte(std::uint32_t pcr)
{
    return pcr >= 17 && pcr <= 22 ? 0xff : 0;
}

// As many as a selection of the TPM's can name.
using pcr_set = std::bitset<32>;

// "PCR 0", "PCRs 0-7, 9", "no PCR"
std::string pcr_text(const pcr_set &pcrs);
