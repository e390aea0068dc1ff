// One trust-anchor session per request: login, work, logout.
#pragma once

#include <cstdint>

#include "platform/trust_anchor_client.h"

// A session that logs out at the end of its scope; a logout that fails is traced under the operation's name
// and changes nothing.
struct trust_anchor_session {
    const char *operation; // under whose name lines are traced; a constant
    kovc_session *handle = nullptr;

    explicit trust_anchor_session(const char *operation_name) : operation(operation_name) {}
    trust_anchor_session(const trust_anchor_session &) = delete;
    trust_anchor_session &operator=(const trust_anchor_session &) = delete;
    ~trust_anchor_session();
};

// Logs in with the agent's login context; a failure is traced under the operation's name. KOV_SUCCESS or the
// status.
kov_status login(trust_anchor_session &session);
