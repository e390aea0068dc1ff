#include "tests/agent/scripted_sources.h"

#include <cstdlib>
#include <cstring>

#include "agent/cpuless_cards.h"
#include "bmc/bmc_operations.h"
#include "boot_log/event_log_reader.h"
#include "ima/ima_retrieval.h"
#include "platform/remote_attestation_api.h"
#include "trust_anchor/certificate_chain.h"
#include "trust_anchor/hw_integrity.h"
#include "trust_anchor/pcr_quote.h"

scripted::script scripted::now;

using scripted::now;

namespace {

template <class Record>
std::uint32_t source(const char *name, std::uint32_t status, Record *record)
{
    now.asked.push_back(name);
    if (status == 0) {
        record->node_name = strdup(name);
        record->present |= Record::has_node_name;
    }
    return status;
}

template <class Response>
scripted::sent_message describe(const Response &response, int last, std::uint32_t rpc_status,
                                std::uint32_t request_id)
{
    scripted::sent_message sent = {last, rpc_status, request_id};
    for (std::uint32_t i = 0; response.present & Response::has_node_data && i < response.node_data.count; ++i)
        sent.records.push_back(response.node_data.items[i].node_name);
    if constexpr (requires { response.nonce; }) {
        if (response.present & Response::has_nonce)
            sent.nonce.emplace(reinterpret_cast<const char *>(response.nonce.data), response.nonce.length);
    }
    if constexpr (requires { response.flags; })
        sent.flags = response.present & Response::has_flags ? response.flags : 0;
    return sent;
}

} // namespace

#define SCRIPTED_BMC(call, request_type, record_type)                                                        \
    std::uint32_t call(const request_type *, record_type *reply)                                             \
    {                                                                                                        \
        return source("bmc", now.bmc_status, reply);                                                         \
    }
SCRIPTED_BMC(attestation_get_certchain_bmc, get_certificate_request, SystemCertificates)
SCRIPTED_BMC(attestation_attest_pcrs_bmc, attest_pcr_request, NodePCRData)
SCRIPTED_BMC(attestation_get_bmc_sb_event_logs, get_platform_boot_integrity_event_logs_request,
             NodeBootIntegrityLog)
SCRIPTED_BMC(attestation_get_bmc_ima_event_logs, get_platform_ima_event_logs_request, NodeIMAData)
SCRIPTED_BMC(get_platform_hw_integrity_bmc, get_platform_hw_integrity_request, tpm_hw_integrity)

std::uint32_t attestation_get_certchain(const get_certificate_request *, SystemCertificates *record)
{
    return source("local", now.local_status, record);
}
std::uint32_t attestation_attest_pcrs(const attest_pcr_request *, NodePCRData *record)
{
    return source("local", now.local_status, record);
}
std::uint32_t attestation_get_local_sb_event_logs(NodeBootIntegrityLog *record)
{
    return source("local", now.local_status, record);
}
// A failed local operation leaves what it could collect, as its contract allows.
std::uint32_t get_platform_hw_integrity_local(const get_platform_hw_integrity_request *,
                                              tpm_hw_integrity *record)
{
    source("local", 0, record);
    return now.local_status;
}
std::uint32_t attestation_get_local_ima_event_logs(std::uint64_t start_event, std::uint64_t event_count,
                                                   NodeIMAData *record, remote_attestation_api_client,
                                                   std::uint32_t, int stream, std::uint64_t unsent)
{
    now.start_event = start_event;
    now.event_count = event_count;
    now.unsent = unsent;
    now.stream = stream;
    source("local", 0, record);
    if (now.stream_events != 0) {
        std::size_t size = now.stream_events * sizeof(IMA_EVENT);
        record->events = {static_cast<IMA_EVENT *>(std::calloc(1, size)),
                          static_cast<std::uint32_t>(now.stream_events)};
        record->present |= record->has_events;
        for (std::uint64_t i = 0; i < now.stream_events; ++i)
            record->events.items[i].event_num = 3001 + i;
    }
    return now.local_status;
}

std::uint32_t get_max_cpuless_cards()
{
    return 8;
}
std::uint32_t get_cpuless_cards_hw_integrity(const get_platform_hw_integrity_request *,
                                             tpm_hw_integrity *records, std::uint32_t first,
                                             std::uint16_t *added)
{
    for (std::uint16_t i = 0; i < now.cards; ++i)
        source("card", 0, &records[first + i]);
    *added = now.cards;
    return 0;
}

#define SCRIPTED_SEND(call, response_type)                                                                   \
    std::int32_t call(remote_attestation_api_client, const response_type *response, int last,                \
                      std::uint32_t rpc_status, std::uint32_t request_id)                                    \
    {                                                                                                        \
        now.sent.push_back(describe(*response, last, rpc_status, request_id));                               \
        return 0;                                                                                            \
    }
SCRIPTED_SEND(remote_attestation_api_get_certificate_Resp, get_certificate_response)
SCRIPTED_SEND(remote_attestation_api_attest_pcr_request_Resp, attest_pcr_response)
SCRIPTED_SEND(remote_attestation_api_get_platform_boot_integrity_event_logs_Resp,
              get_platform_boot_integrity_event_logs_response)
SCRIPTED_SEND(remote_attestation_api_get_platform_ima_event_logs_Resp, get_platform_ima_event_logs_response)
SCRIPTED_SEND(remote_attestation_api_get_platform_hw_integrity_Resp, get_platform_hw_integrity_response)

std::int32_t remote_attestation_api_stream_ima_event_logs_Resp(remote_attestation_api_client,
                                                               const NodeIMAData *message, int last,
                                                               std::uint32_t rpc_status,
                                                               std::uint32_t request_id)
{
    scripted::sent_message sent = {last, rpc_status, request_id};
    if (message->present & message->has_node_name)
        sent.records.push_back(message->node_name);
    for (std::uint32_t i = 0; message->present & message->has_events && i < message->events.count; ++i)
        sent.event_numbers.push_back(message->events.items[i].event_num);
    now.sent.push_back(sent);
    return now.stream_send_result;
}

std::uint64_t remote_attestation_api_server_get_user_context(remote_attestation_api_client)
{
    return now.user_context;
}
void remote_attestation_api_server_set_user_context(remote_attestation_api_client, std::uint64_t context)
{
    now.user_context = context;
}
remote_attestation_api_transport
remote_attestation_api_client_get_transport(remote_attestation_api_client client)
{
    return {client};
}
std::uint32_t transport_get_remote_endpoint(remote_attestation_api_transport,
                                            remote_attestation_api_endpoint *endpoint)
{
    *endpoint = {0xC0000201, 40000};
    return 0;
}
std::uint32_t transport_get_local_endpoint(remote_attestation_api_transport,
                                           remote_attestation_api_endpoint *endpoint)
{
    *endpoint = {0x7F000001, 50551};
    return 0;
}
std::uint32_t transport_set_buffering(remote_attestation_api_transport, int on)
{
    now.buffering = on;
    return 0;
}
