// The firmware's measured-boot event log as the kernel hands it out: records one after the other, all
// integers little-endian, nothing aligned.
//
//   SHA-1-only record (TPM 1.2, and the first record of a TPM 2.0 log)
//     0  PCR index    4
//     4  event type   4
//     8  SHA-1        20
//    28  event size   4    N
//    32  event data   N
//
//   Crypto-agile record (TPM 2.0)
//     0  PCR index    4
//     4  event type   4
//     8  digest count 4    D, at least 1
//    12  D digests: algorithm identifier 2, digest as the identifier implies; S bytes together
//  12+S  event size   4    N
//  16+S  event data   N
//
//   UEFI variable data (in events of the three variable types)
//     0  variable GUID                 16
//    16  name length in UTF-16 units   8    L
//    24  variable data length          8
//    32  name, UTF-16LE, unterminated  2L
//  32+2L variable data
//
//   Spec ID data (in a SHA-1-only record of type NO_ACTION and PCR 0)
//     0  signature, text    16
//    16  platform class     4
//    20  specification version: minor 1, major 1; errata 1
//    23  UINTN size         1
//    24  number of algorithms  4   K
//    28  K times: algorithm identifier 2, digest size 2
//  28+4K vendor information size 1   V
//  29+4K vendor information    V
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t SHA1_DIGEST_SIZE = 20;

enum : std::uint32_t {
    EV_NO_ACTION = 0x00000003,
    EV_IPL = 0x0000000D,
    EV_EFI_VARIABLE_DRIVER_CONFIG = 0x80000001,
    EV_EFI_VARIABLE_BOOT = 0x80000002,
    EV_EFI_ACTION = 0x80000007,
    EV_EFI_VARIABLE_AUTHORITY = 0x800000E0
};

// `hash_alg` of BOOT_EVENT_DIGEST; an unrecognised algorithm is stored as SHA-1 too.
enum : std::uint32_t { BOOT_HASH_SHA1 = 0, BOOT_HASH_SHA256 = 1, BOOT_HASH_SHA384 = 2, BOOT_HASH_SHA512 = 3 };

// A digest algorithm of crypto-agile records. The low byte of the identifier in the record decides.
struct boot_digest_algorithm {
    std::uint8_t identifier;
    std::uint16_t digest_size;
    std::uint32_t hash_alg;
    const char *name; // in the trace
};
inline constexpr boot_digest_algorithm boot_digest_algorithms[] = {
    {0x04, SHA1_DIGEST_SIZE, BOOT_HASH_SHA1, "SHA1"},
    {0x0B, 32, BOOT_HASH_SHA256, "SHA256"},
    {0x0C, 48, BOOT_HASH_SHA384, "SHA384"},
    {0x0D, 64, BOOT_HASH_SHA512, "SHA512"},
};

// Bytes of the Spec ID data before its number of algorithms, and of one entry of the list.
inline constexpr std::size_t SPEC_ID_ALGORITHMS_OFFSET = 24;
inline constexpr std::size_t SPEC_ID_ALGORITHM_SIZE = 4;
