// Where the board's management controller is.
#pragma once

#include <cstddef>
#include <cstdint>

// Bytes of an address with its NUL.
inline constexpr std::size_t BMC_ADDRESS_SIZE = 16;

// Writes the controller's IPv4 address in dotted form, NUL-terminated, into `buffer` of `size` bytes:
// ATTEST_BMC_ADDRESS, 169.254.0.17 when not set. 0; or a platform status, with `buffer` an empty text:
// ENODEV's when the setting says "none", for a board without one, EINVAL's when it is no address.
std::uint32_t platform_get_bmc_address(char *buffer, std::size_t size);
