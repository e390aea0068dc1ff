#include "trust_anchor/pcr_quote.h"

#include "agent/agent_state.h"
#include "agent/debug_trace.h"
#include "agent/node_location.h"
#include "agent/status.h"
#include "boot_log/uptime.h"
#include "trust_anchor/record_parts.h"
#include "trust_anchor/session.h"

namespace {

constexpr const char *OPERATION = "attestation_attest_pcrs";

// The bit of an index in the library's 64-bit mask: a signed 32-bit value widened with its sign, so that
// index 31 (modulo 32) sets the upper half too.
std::uint64_t mask_bit(std::uint32_t index)
{
    auto bit = static_cast<std::int32_t>(std::uint32_t{1} << index % 32);
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(bit));
}

// Reads the requested PCRs, in their order, and quotes them.
std::uint32_t collect(kovc_session *session, const attest_pcr_request &request, const message_bytes &nonce,
                      NodePCRData &record)
{
    message_release(record);
    // The contract's limit is 255; more count modulo 256.
    auto count = static_cast<std::uint8_t>(request.pcr_indices.count);
    record.pcrs = {allocate_items<PCR_DUMP>(count), count};
    if (record.pcrs.items == nullptr) {
        record.pcrs.count = 0;
        return ATTEST_ERR_NO_MEMORY;
    }
    record.present |= record.has_pcrs;
    std::uint64_t mask = 0;
    for (std::uint8_t i = 0; i < count; ++i) {
        std::uint32_t index = request.pcr_indices.items[i];
        if (!read_pcr(OPERATION, session, KOV_ALG_SHA256, index, record.pcrs.items[i]))
            return ATTEST_ERR_KOV_COMM;
        mask |= mask_bit(index);
    }
    quote_into(OPERATION, session, KOV_ALG_SHA256, mask, nonce, record);
    return ATTEST_OK;
}

} // namespace

std::uint32_t attestation_attest_pcrs(const attest_pcr_request *request, NodePCRData *record)
{
    if (request == nullptr || record == nullptr || (request->present & request->has_pcr_indices) == 0) {
        attest_trace("%s invalid parameters ", __func__);
        return ATTEST_ERR_INVALID_PARAM;
    }
    if (at_agent_state.capability_pcr_read == 0 || at_agent_state.capability_pcr_quote == 0) {
        attest_trace("%s PCR read / quote not supported ", __func__);
        return ATTEST_ERR_NOT_SUPPORTED;
    }
    trust_anchor_session session(__func__);
    if (login(session) != KOV_SUCCESS)
        return ATTEST_ERR_KOV_COMM;

    *record = {};
    message_bytes nonce = request->present & request->has_nonce ? request->nonce : message_bytes{};
    owned_message<NodePCRData> filled;
    std::uint32_t status =
        collect_in_sync(__func__, [&] { return collect(session.handle, *request, nonce, *filled); });
    if (status != ATTEST_OK)
        return status;

    malloc_ptr<char> node_name = allocate_node_location(__func__);
    if (node_name == nullptr)
        return ATTEST_ERR_NO_MEMORY;
    filled->node_name = node_name.release();
    filled->uptime = at_get_uptime_fm_sys();
    filled->present |= filled->has_node_name | filled->has_uptime;
    *record = filled.hand_over();
    return ATTEST_OK;
}
