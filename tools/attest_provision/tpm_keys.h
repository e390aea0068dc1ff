// The node's keys in the TPM: made under the storage root of the owner hierarchy, certified, made persistent.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/tpm/connection.h"
#include "tools/attest_provision/certificates.h"

// Persistent handles that the keys get, the first free ones; in the owner's range, out of the way of those
// that the TCG reserves for endorsement and storage keys.
inline constexpr std::uint32_t KEY_HANDLE_FIRST = 0x81014100;
inline constexpr std::uint32_t KEY_HANDLE_LAST = 0x810141FF;

// A key that the TPM holds until it is flushed: by the destructor.
struct transient_object {
    ESYS_CONTEXT *esys = nullptr;
    ESYS_TR handle = ESYS_TR_NONE;

    transient_object() = default;
    transient_object(const transient_object &) = delete;
    transient_object &operator=(const transient_object &) = delete;
    ~transient_object();
};

struct made_key {
    transient_object object;
    std::string tpm_name; // hexadecimal
    evp_pkey public_key;
};

// Each returns false with the reason said.

bool tpm_connect(std::unique_ptr<tpm_connection> &connection);

bool tpm_make_storage_root(tpm_connection &connection, transient_object &root);

// Makes an RSA-2048 signing key (RSASSA, SHA-256) under the root with the login secret as its authorisation
// value, exempt from dictionary-attack protection. A restricted key signs only what the TPM itself has to
// say.
bool tpm_make_key(tpm_connection &connection, const transient_object &root, bool restricted, made_key &key);

// The first `count` free persistent handles of the range.
bool tpm_free_handles(tpm_connection &connection, std::size_t count, std::vector<std::uint32_t> &handles);

bool tpm_make_persistent(tpm_connection &connection, const made_key &key, std::uint32_t handle);

// Removes the persistent key if it has this name; true also when there is none at the handle or it has
// another.
bool tpm_evict_key(tpm_connection &connection, std::uint32_t handle, const std::string &tpm_name);

// Name and public key at a persistent handle; silent.
kov_status tpm_read_key(tpm_connection &connection, std::uint32_t handle, std::string &tpm_name,
                        evp_pkey &public_key);
