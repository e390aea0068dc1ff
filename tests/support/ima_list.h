// Measurement lists as the kernel would write them, for tests, benchmarks and fuzzing.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

// One field of template data: its length and its bytes.
std::string ima_field_bytes(std::string_view bytes);
// A "d-ng" field: algorithm, ":", NUL, digest.
std::string ima_digest_field(std::string_view algorithm, std::string_view digest);
// An "n-ng" field: the name and its NUL.
std::string ima_name_field(std::string_view name);

// A record, with the template hash over its data; a violation has a hash of zeros.
std::string ima_record(std::uint32_t pcr, std::string_view template_name, std::string_view data,
                       bool violation = false);
// An "ima" record: a SHA-1 digest and a name without a NUL.
std::string ima_old_record(std::uint32_t pcr, std::string_view digest, std::string_view name,
                           bool violation = false);

// `count` records of PCR 10 of the given kinds by turns, with names of a file tree, repeated files,
// signatures, violations and, of the kinds OLD and UNKNOWN, the longest names now and then; the same for the
// same seed.
enum ima_kinds : unsigned {
    IMA_KIND_OLD = 1,
    IMA_KIND_NG = 2,
    IMA_KIND_SIG = 4,
    IMA_KIND_LISTED = 8,   // a template named by its field list
    IMA_KIND_UNKNOWN = 16, // a template with a field that the agent does not know
    IMA_KIND_EDGE = 32,    // a known template with fields as long, or as short, as they may be
    IMA_KIND_ALL = 63
};
std::string ima_list(std::size_t count, unsigned kinds, std::uint32_t seed = 1);

// What PCR 10 of the SHA-1 bank holds after the list.
std::array<std::uint8_t, 20> ima_list_pcr(std::string_view list);
