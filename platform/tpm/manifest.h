// The manifest of a provisioned node: what the trust anchor's names stand for.
//
// A JSON object in /etc/attestation_agent/trust_anchor.json, or where ATTEST_TRUST_ANCHOR says:
//
//   {"version": 1, "node": "NAME", "demonstration_ca": false,
//    "keys": {"RSA_AIK_KEY": {"handle": "0x81014101", "name": "000b..."}, ...},
//    "objects": {"RSA_AIK_CRT": {"file": "certificates-.../RSA_AIK_CRT.der"},
//                "OTHER": {"nv_index": "0x01c00002"}},
//    "identifiers": [{"place": "net/0000:00:03.0", "sha1": "...", "sha256": "...",
//                     "sha384": "...", "sha512": "..."}, ...]}
//
// Files are relative to the manifest's directory and stay below it. A key's name is its TPM name, by which
// attest-provision recognises it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/tpm/algorithms.h"
#include "platform/trust_anchor_client.h"

inline constexpr char MANIFEST_DEFAULT_PATH[] = "/etc/attestation_agent/trust_anchor.json";
inline constexpr std::size_t MANIFEST_MAX_BYTES = std::size_t{1} << 20;
inline constexpr std::size_t MANIFEST_MAX_IDENTIFIERS = 2048; // about 1 MiB of manifest; a board has dozens

struct manifest_key {
    std::string name;
    std::uint32_t handle; // persistent
    std::vector<std::uint8_t> tpm_name;
};
struct manifest_object {
    std::string name;
    std::string file;       // empty: it is in the NV index
    std::uint32_t nv_index; // 0 with a file
};
struct manifest_identifier {
    std::string place;
    std::array<digest_value, TPM_ALGORITHM_COUNT> digests; // in the order of tpm_algorithms
};
struct manifest {
    std::string directory;
    std::string node;
    bool demonstration_ca = false;
    std::vector<manifest_key> keys;
    std::vector<manifest_object> objects;
    std::vector<manifest_identifier> identifiers;
};

// The path in force.
std::string manifest_path();

// Reads a manifest. KOV_ERR_NOT_PROVISIONED when there is no file, KOV_ERR_MANIFEST when anything in it is
// not as it must be, an errno's status when it cannot be read now; `loaded` is then empty. May throw for want
// of memory.
kov_status manifest_load(const std::string &path, manifest &loaded);

std::string manifest_text(const manifest &written);

const manifest_key *manifest_find_key(const manifest &in, const char *name);
const manifest_object *manifest_find_object(const manifest &in, const char *name);

// Hexadecimal, and back; false for what is no whole number of bytes.
std::string hex_text(const std::uint8_t *bytes, std::size_t count);
bool hex_value(const std::string &text, std::vector<std::uint8_t> &bytes);
