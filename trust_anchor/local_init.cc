#include "trust_anchor/local_init.h"

#include <cstdio>
#include <sys/resource.h>

#include "agent/agent_state.h"
#include "agent/debug_trace.h"
#include "agent/status.h"
#include "ima_cache/ima_cache.h"
#include "platform/owners.h"
#include "trust_anchor/session.h"

namespace {

constexpr const char *OPERATION = "attestation_local_init";

std::uint64_t soft_data_limit()
{
    rlimit limit = {};
    getrlimit(RLIMIT_DATA, &limit);
    return limit.rlim_cur;
}

void fill_login_context(kov_login_context &login)
{
    login.kind = KOV_LOGIN_KIND_SECRET;
    std::snprintf(login.user_name, sizeof login.user_name, "%s", KOV_LOGIN_USER);
    std::snprintf(login.secret, sizeof login.secret, "%s", KOV_LOGIN_SECRET);
}

// 1 when the module has the capability; 0 when it has not or cannot say.
std::uint32_t query_capability(kovc_session *session, std::uint32_t capability)
{
    kov_capability *result = nullptr;
    kov_status status = kovc_device_capability(session, capability, &result);
    malloc_ptr<kov_capability> owner(result);
    if (status != KOV_SUCCESS || result == nullptr) {
        attest_trace_as(OPERATION, "Unable to fetch device capablity %s", kov_status_string(status));
        return 0;
    }
    return result->present == 1 ? 1 : 0;
}

bool query_capabilities()
{
    trust_anchor_session session(OPERATION);
    if (login(session) != KOV_SUCCESS)
        return false;
    at_agent_state.capability_pcr_read = query_capability(session.handle, KOV_CAPABILITY_PCR_READ);
    at_agent_state.capability_pcr_quote = query_capability(session.handle, KOV_CAPABILITY_PCR_QUOTE);
    return true;
}

} // namespace

std::uint32_t attestation_local_init()
{
    at_agent_state = {};
    at_soft_data_limit = soft_data_limit();

    kov_status status = kov_register_ipc_cb(kov_linux_ipc_init, kov_linux_ipc_cleanup, kov_linux_ipc_open,
                                            kov_linux_ipc_close, kov_linux_ipc_send, kov_linux_ipc_receive);
    if (status != KOV_SUCCESS) {
        attest_trace("Failed to initilize kov_register_ipc_cb %s", kov_status_string(status));
        return ATTEST_ERR_KOV_INIT;
    }
    status = kov_register_mem_cb(kov_linux_mem_alloc, kov_linux_mem_free);
    if (status != KOV_SUCCESS) {
        attest_trace("Failed to initilize kov_register_mem_cb %s", kov_status_string(status));
        return ATTEST_ERR_KOV_INIT;
    }
    std::uint32_t device_status =
        platform_get_kov_device_info(&at_agent_state.device_handle, &at_agent_state.device_info);
    if (device_status != 0) {
        attest_trace("Failed to initilize platform_get_kov_device_info %s", status_strerror(device_status));
        return ATTEST_ERR_KOV_INIT;
    }
    status = kovc_init_context(&at_agent_state.client_context, KOV_LOGIN_USER, 0);
    if (status != KOV_SUCCESS) {
        attest_trace("Failed to initilize  kovc_init_context %s", kov_status_string(status));
        return ATTEST_ERR_KOV_INIT;
    }
    fill_login_context(at_agent_state.login_context);
    if (!query_capabilities())
        return ATTEST_ERR_KOV_INIT;
    if (at_ima_cache_init() == 1) {
        attest_trace("IMA cache initialized");
        at_agent_state.ima_cache_ready = 1;
    }
    return ATTEST_OK;
}
