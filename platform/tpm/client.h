// What stands behind the client library's handles.
#pragma once

#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "platform/small_file.h"
#include "platform/tpm/client_status.h"
#include "platform/tpm/connection.h"
#include "platform/tpm/manifest.h"

// The manifest as it was last read, with what tells that the file is another one now.
struct manifest_cache {
    std::string path;
    file_mark mark;
    kov_status status = KOV_ERR_NOT_PROVISIONED; // of the last reading
    manifest content;
};

struct kovc_context {
    std::string user;
    kov_ipc_callbacks ipc;
    std::unique_ptr<tpm_connection> connection; // null before the first login and after one that failed
    manifest_cache provisioned;
    kov_status binding = KOV_ERR_NOT_PROVISIONED; // KOV_SUCCESS once PCR 15 was seen to be extended
    std::map<std::string, ESYS_TR> keys;          // resolved on this connection
};

struct kovc_signing {
    const tpm_algorithm *algorithm;
    std::string key_name; // its handle may be another one by the time of the signature
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest;
};

struct kovc_session {
    kovc_context *context;
    TPM2B_AUTH secret{};
    std::vector<std::unique_ptr<kovc_signing>> signings;

    explicit kovc_session(kovc_context *of) : context(of) {}
    kovc_session(const kovc_session &) = delete;
    kovc_session &operator=(const kovc_session &) = delete;
    ~kovc_session();
};

// The session's connection. A status, and null, after a later login has found the TPM gone.
kov_status session_connection(const kovc_session &session, tpm_connection **connection);

// The ESYS handle of a key of the manifest, with the session's secret as its authorisation. Resolved at the
// first use (one ReadPublic) and kept.
kov_status session_key(kovc_session &session, const char *key_name, ESYS_TR *key);

// A copy of the bytes in memory of the registered alloc callback; null and 0 for none.
kov_status hand_out(std::span<const std::uint8_t> bytes, std::uint8_t **data, std::uint32_t *length);

// Memory of the registered alloc callback; null when there is none or it fails. And back.
void *client_alloc(std::size_t size);
void client_free(void *memory);
