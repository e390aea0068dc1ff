// HTTPS to the BMC: the certificate login that opens a session, and the call that relays one request.
//
// Everything blocks, at most 1 s for a connection and 15 s for a transfer. Failures are traced here.
#pragma once

#include <cstddef>
#include <cstdint>

#include <curl/curl.h>

#include "platform/owners.h"

// Opens a session at the BMC; its cookie is then in the file "cjar" of the working directory, which only its
// owner may read. 0; -2 when it failed, also at once, before anything is signed, when there is no BMC.
int login_cert();

// Relays the encoded request `op` (its number) of the node and gives back the decoded response. 0, and
// `*response` of `*response_len` bytes is the caller's, from malloc; 0, null and 0 when the BMC answered with
// a refusal or without data; -1, null and 0 when there was no answer, or none that could be read. An encoded
// request may be empty. A node name that cannot stand in a JSON text as it is counts as a missing one.
int rest_operation(std::uint32_t op, const char *node_name, const std::uint8_t *request,
                   std::int32_t request_len, std::uint8_t **response, std::uint32_t *response_len);

// Runs a prepared transfer. 0 when it ended with HTTP status 200, else -1.
int perform_rest_call(CURL *handle);

// The body of a call: one JSON object without blanks. Null when there is no memory.
malloc_ptr<char> make_call_body(std::uint32_t op, const char *node_name, const char *request_base64,
                                std::size_t base64_len);
