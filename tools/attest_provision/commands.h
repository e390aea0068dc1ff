// The program's three commands. Each returns an exit status.
#pragma once

#include <string>

struct provision_options {
    std::string manifest_path;
    std::string ca_certificate; // both empty: a demonstration CA
    std::string ca_key;
    std::string node_name;
    bool force = false;
};

// What a node is provisioned with.
inline constexpr char IDENTITY_KEY_NAME[] = "RSA_VOXAKEY";
inline constexpr char ATTESTATION_KEY_NAME[] = "RSA_AIK_KEY";
struct certified_key {
    const char *key_name;
    const char *certificate_object;
    const char *chain_object; // issuing CA, then root, both DER
    bool restricted;
};
inline constexpr certified_key CERTIFIED_KEYS[] = {
    {IDENTITY_KEY_NAME, "RSA_VOXACRT", "RSA_SCHAIN", false},
    {ATTESTATION_KEY_NAME, "RSA_AIK_CRT", "RSA_AIK_CHAIN", true},
};

int provision(const provision_options &options);
int show(const std::string &manifest_path);
int check(const std::string &manifest_path);
