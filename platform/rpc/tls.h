// The node's certificate, its key and the CAs of its clients: three PEM files in one directory.
//
//   server.crt     the node's certificate, then the intermediate ones of its chain
//   server.key     its private key, not encrypted
//   client-ca.crt  the CAs whose clients are served
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/small_file.h"

struct rpc_tls {
    std::string certificate, key, client_ca; // PEM; all empty without TLS
    std::int64_t expires = 0;                // of the certificate, in seconds since 1970
    bool on() const { return !certificate.empty(); }
    bool operator==(const rpc_tls &) const = default;
};

// What gRPC would only find out at the first client is found out here: 0, or a status with *why as
// "FILE: reason": what reading a file gave, EBADMSG for a file that is not PEM from end to end, EKEYREJECTED
// for a key that is not the certificate's.
std::uint32_t rpc_tls_read(const std::string &directory, rpc_tls *tls, std::string *why);

// To see whether any of the files has changed.
using rpc_tls_marks = std::array<file_mark, 3>;
rpc_tls_marks rpc_tls_marks_of(const std::string &directory);
