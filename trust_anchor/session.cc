#include "trust_anchor/session.h"

#include "agent/agent_state.h"
#include "agent/debug_trace.h"

kov_status login(trust_anchor_session &session)
{
    kov_status status = kovc_app_login(at_agent_state.client_context, at_agent_state.device_handle,
                                       &at_agent_state.login_context, &session.handle);
    if (status != KOV_SUCCESS)
        attest_trace_as(session.operation, "Failed to login to kov %s", kov_status_string(status));
    return status;
}

trust_anchor_session::~trust_anchor_session()
{
    if (handle == nullptr)
        return;
    kov_status status = kovc_app_logout(&handle);
    if (status != KOV_SUCCESS)
        attest_trace_as(operation, "Failed to kovc app logout %s", kov_status_string(status));
}
