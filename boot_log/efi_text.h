// Parts of UEFI event records as text. Each formatter has one buffer, reused by its next call: use the text
// before that, and on one thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// An EFI GUID as it is stored: the 36 characters of its registry form, lower case.
const char *guid_to_string(std::span<const std::byte, 16> guid);

// `count` UTF-16LE code units at `chars`, which need not be aligned: one character a unit, its low byte. A
// name of more than 99 units is cut there, and no byte beyond the 99th unit is read.
const char *unicode_name_to_string(const std::byte *chars, std::uint64_t count);
