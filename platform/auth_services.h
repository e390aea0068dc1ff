// The authentication service for a login at the management controller by the node's own certificate.
//
// One session at a time, on one thread. Each operation returns 0 or a platform status.
#pragma once

#include <cstdint>

#include "platform/trust_anchor_client.h"

// Begins a session: logs in to the trust anchor, whose key makes the login's signature. The client context is
// the caller's and outlives the session; it is shared because a software TPM serves one connection at a time.
// ENODEV's status without a context, EBUSY's when a session is open.
std::uint32_t auth_services_login_init(kovc_context *context, std::uint64_t device_handle,
                                       const kov_login_context *login);

// Makes the login body for `user` by the certificate of this name (docs/bmc-relay.md says what is in it):
// JSON text in memory from malloc, NUL-terminated, that is the caller's; *length is its length without the
// NUL. On failure null and 0: ENOENT's status when there is no such certificate, ENOKEY's when its key is not
// there, ENOTCONN's without a session.
std::uint32_t generate_json_from_auth_cert_msg(char **json, std::uint32_t *length, const char *user,
                                               const char *certificate_name);

// Ends the session; ENOTCONN's status when there is none. A failure tells of a trust anchor that went away
// meanwhile: the session has ended all the same.
std::uint32_t auth_services_logout();
