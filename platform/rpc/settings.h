// Where to listen and as whom: the activation's parameters and the environment.
//
//   ATTEST_PORT           the port when the activation has none: 1 to 65535, by default 50551
//   ATTEST_TLS_DIR        a directory with the PEM files of tls.h, which turn mutual TLS on
//   ATTEST_ALLOW          a file that says which client may ask for what (allow_list.h)
//   ATTEST_RPC_PLAINTEXT  "1": without TLS other addresses than 127.0.0.0/8 are served too
//
// A directory or file that is not set, or empty: no TLS; every client that is served may ask for everything.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/remote_attestation_api.h"
#include "platform/rpc/allow_list.h"
#include "platform/rpc/tls.h"

struct rpc_settings {
    remote_attestation_api_endpoint endpoint;
    std::string tls_directory, allow_file; // empty: not set
    rpc_tls tls;
    std::shared_ptr<const rpc_allow_list> allow; // null: not set
    rpc_tls_marks tls_marks{}; // taken before the files were read, so that a change meanwhile is noticed
    file_mark allow_mark;
};

// 0, or a status that was told to the operator: EINVAL for missing or bad parameters and an allow-list
// without TLS, EACCES for plaintext on an address that is not loopback, the statuses of rpc_tls_read and
// rpc_allow_file_read.
std::uint32_t rpc_settings_read(const remote_attestation_api_activation *parameters, rpc_settings *settings);

// "a.b.c.d:port".
std::string rpc_endpoint_text(const remote_attestation_api_endpoint &endpoint);

// 0 with the list of the file; or a status with *why, "PATH: reason": what reading it gave, EBADMSG for one
// that cannot be parsed.
std::uint32_t rpc_allow_file_read(const std::string &path, std::shared_ptr<const rpc_allow_list> *list,
                                  std::string *why);
