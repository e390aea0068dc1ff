// Where to listen and as whom: the activation's parameters and the environment.
//
//   ATTEST_PORT           the port when the activation has none: 1 to 65535, by default 50551
//   ATTEST_TLS_DIR        a directory with three PEM files, which turn mutual TLS on:
//                           server.crt     the node's certificate, then the intermediate ones of its chain
//                           server.key     its private key, not encrypted
//                           client-ca.crt  the CAs whose clients are served
//                         not set or empty: no TLS
//   ATTEST_RPC_PLAINTEXT  "1": without TLS other addresses than 127.0.0.0/8 are served too
#pragma once

#include <cstdint>
#include <string>

#include "platform/remote_attestation_api.h"

struct rpc_tls {
    std::string certificate, key, client_ca; // PEM; all empty without TLS
    bool on() const { return !certificate.empty(); }
};

struct rpc_settings {
    remote_attestation_api_endpoint endpoint;
    rpc_tls tls;
};

// 0, or a status that was told to the operator: EINVAL for missing or bad parameters, EACCES for plaintext on
// an address that is not loopback, what reading a file gave, EBADMSG for a file that is not PEM, EKEYREJECTED
// for a key that is not the certificate's.
std::uint32_t rpc_settings_read(const remote_attestation_api_activation *parameters, rpc_settings *settings);

// "a.b.c.d:port".
std::string rpc_endpoint_text(const remote_attestation_api_endpoint &endpoint);
