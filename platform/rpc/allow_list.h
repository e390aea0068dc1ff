// Which client may ask for which evidence: a text file, an identity and its operations a line.
//
//   # identity                        operations
//   dns:verifier-1.example.net        *
//   uri:spiffe://example/verifier     GetCertificate AttestPcrs
//   "subject:CN=Jane Doe,O=Example"   GetPlatformBootIntegrityEventLogs
//   *                                 GetCertificate
//
// An identity is what the client's certificate says of it: dns:, uri:, ip: and email: are its alternative
// names, subject: the whole subject as RFC 2253 writes it (openssl x509 -noout -subject -nameopt RFC2253),
// cn: the subject's common name; * is every client with a certificate of the CA. One that has blanks in it
// stands between quotation marks. Operations are those of the contract, separated by blanks or commas; * is
// all. A client may ask for what any line allows it; "#" begins a comment.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct rpc_method;

// One of the names of a client: {"dns", "verifier-1.example.net"}.
struct rpc_identity {
    std::string kind, value;
};
using rpc_caller = std::vector<rpc_identity>;

struct rpc_allow_entry {
    rpc_identity who;      // kind "*": everybody
    std::uint32_t methods; // a bit each (rpc_method_bit)
};
struct rpc_allow_list {
    std::vector<rpc_allow_entry> entries;
};

// 0, or EBADMSG's status with *why, which names the line. A list without any entry is refused: it would shut
// everybody out, and an empty file is more likely a mistake.
std::uint32_t rpc_allow_list_parse(std::string_view text, rpc_allow_list *list, std::string *why);

bool rpc_allow_list_permits(const rpc_allow_list &list, const rpc_caller &caller, const rpc_method &method);

// The name that tells most about a client, as it would stand in the file; printable, at most 200 bytes.
std::string rpc_caller_text(const rpc_caller &caller);
