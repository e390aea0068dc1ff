#include "agent/handlers.h"

#include <cstdlib>

#include "agent/answer_rule.h"
#include "agent/cpuless_cards.h"
#include "agent/ima_request.h"
#include "agent/metrics.h"
#include "bmc/bmc_operations.h"
#include "boot_log/event_log_reader.h"
#include "ima/ima_retrieval.h"
#include "platform/owners.h"
#include "trust_anchor/certificate_chain.h"
#include "trust_anchor/hw_integrity.h"
#include "trust_anchor/pcr_quote.h"

namespace {

using client_handle = remote_attestation_api_client;

constexpr two_source_operation<get_certificate_request, SystemCertificates, get_certificate_response>
    certificate_operation = {
        .name = "get_certificate",
        .method = "GetCertificate",
        .traces_no_data = true,
        .ask_bmc = attestation_get_certchain_bmc,
        .ask_local = [](const get_certificate_request *request, SystemCertificates *record, client_handle,
                        std::uint32_t) { return attestation_get_certchain(request, record); },
        .send = remote_attestation_api_get_certificate_Resp,
};

constexpr two_source_operation<attest_pcr_request, NodePCRData, attest_pcr_response> pcr_operation = {
    .name = "attest_pcrs",
    .method = "AttestPcrs",
    .traces_no_data = true,
    .ask_bmc = attestation_attest_pcrs_bmc,
    .ask_local = [](const attest_pcr_request *request, NodePCRData *record, client_handle,
                    std::uint32_t) { return attestation_attest_pcrs(request, record); },
    .send = remote_attestation_api_attest_pcr_request_Resp,
};

constexpr two_source_operation<get_platform_boot_integrity_event_logs_request, NodeBootIntegrityLog,
                               get_platform_boot_integrity_event_logs_response>
    boot_log_operation = {
        .name = "get_platform_boot_integrity_event_logs",
        .method = "GetPlatformBootIntegrityEventLogs",
        .traces_no_data = false,
        .ask_bmc = attestation_get_bmc_sb_event_logs,
        .ask_local = [](const get_platform_boot_integrity_event_logs_request *, NodeBootIntegrityLog *record,
                        client_handle, std::uint32_t) { return attestation_get_local_sb_event_logs(record); },
        .send = remote_attestation_api_get_platform_boot_integrity_event_logs_Resp,
};

constexpr two_source_operation<get_platform_ima_event_logs_request, NodeIMAData,
                               get_platform_ima_event_logs_response>
    ima_operation = {
        .name = "get_platform_ima_event_logs",
        .method = "GetPlatformImaEventLogs",
        .traces_no_data = false,
        .ask_bmc = attestation_get_bmc_ima_event_logs,
        .ask_local =
            [](const get_platform_ima_event_logs_request *request, NodeIMAData *record, client_handle client,
               std::uint32_t request_id) {
                return attestation_get_local_ima_event_logs(
                    start_event_of(*request), event_count_of(*request), record, client, request_id, 0);
            },
        .send = remote_attestation_api_get_platform_ima_event_logs_Resp,
};

// Flags that are set say that every source was asked. They are set in every one of these answers, also in
// that to a nonce that is refused, for which no source is asked.
template <class Response>
Response response_with_flags()
{
    Response response = {};
    response.flags = RESPONSE_ALL_SOURCES_ASKED;
    response.present = Response::has_flags;
    return response;
}

} // namespace

void get_certificate(client_handle client, const get_certificate_request *request, std::uint32_t request_id)
{
    attest_trace("Attestation Agent: get_certificate return code %d\n", static_cast<int>(request_id));
    get_certificate_response response = {};
    answer_from_two_sources(certificate_operation, client, request, request_id, response);
}

void attest_pcrs(client_handle client, const attest_pcr_request *request, std::uint32_t request_id)
{
    attest_trace("Attestation agent:attest_pcrs request id %d\n", static_cast<int>(request_id));
    auto response = response_with_flags<attest_pcr_response>();
    nonce_buffer nonce;
    if (!echo_nonce(*request, response, nonce, false)) {
        trace_no_data(__func__, ATTEST_ERR_INVALID_PARAM);
        remote_attestation_api_attest_pcr_request_Resp(client, &response, 1, 0, request_id);
        return;
    }
    answer_from_two_sources(pcr_operation, client, request, request_id, response);
}

void get_platform_boot_integrity_event_logs(client_handle client,
                                            const get_platform_boot_integrity_event_logs_request *request,
                                            std::uint32_t request_id)
{
    attest_trace("Attestation agent: get_platform_boot_integrity_event_logs request id %d\n",
                 static_cast<int>(request_id));
    auto response = response_with_flags<get_platform_boot_integrity_event_logs_response>();
    answer_from_two_sources(boot_log_operation, client, request, request_id, response);
}

void get_platform_ima_event_logs(client_handle client, const get_platform_ima_event_logs_request *request,
                                 std::uint32_t request_id)
{
    attest_trace("Attestation agent: attest_ima request id %d\n", static_cast<int>(request_id));
    auto response = response_with_flags<get_platform_ima_event_logs_response>();
    answer_from_two_sources(ima_operation, client, request, request_id, response);
}

namespace {

// Puts the node's, the BMC's and the cards' records into `records`, in this order and without gaps. Their
// number; *local_status is how the node itself answered.
std::uint8_t collect_hw_integrity(const get_platform_hw_integrity_request *request, tpm_hw_integrity *records,
                                  std::uint32_t *local_status)
{
    constexpr const char *operation = "get_platform_hw_integrity";
    constexpr const char *method = "GetPlatformHwIntegrity";
    std::uint8_t count = 0;
    *local_status = get_platform_hw_integrity_local(request, &records[0]);
    count_source(method, SOURCE_NODE, *local_status);
    if (*local_status == ATTEST_OK) {
        attest_trace_as(operation, "Received data from local Zuvari");
        count = 1;
    } else {
        message_release(records[0]); // a failed local operation may leave what it could collect
    }
    std::uint32_t bmc_status = get_platform_hw_integrity_bmc(request, &records[count]);
    count_source(method, SOURCE_BMC, bmc_status);
    if (bmc_status == ATTEST_OK) {
        attest_trace_as(operation, "Received data from BMC");
        ++count;
    }
    std::uint16_t cards = 0;
    get_cpuless_cards_hw_integrity(request, records, count, &cards);
    if (cards != 0) {
        attest_trace_as(operation, "Received data from CPUless cards %d", cards);
        count = static_cast<std::uint8_t>(count + cards);
    }
    if (count == 0)
        count_empty_answer(method);
    return count;
}

} // namespace

void get_platform_hw_integrity(client_handle client, const get_platform_hw_integrity_request *request,
                               std::uint32_t request_id)
{
    attest_trace("Attestation agent:hw integrity request id %d\n", static_cast<int>(request_id));
    get_platform_hw_integrity_response response = {};
    nonce_buffer nonce;
    // The node's, the BMC's and the cards'.
    malloc_ptr<tpm_hw_integrity> records(
        static_cast<tpm_hw_integrity *>(std::calloc(get_max_cpuless_cards() + 2, sizeof(tpm_hw_integrity))));
    std::uint8_t count = 0;
    if (!echo_nonce(*request, response, nonce, true)) {
        trace_no_data(__func__, ATTEST_ERR_INVALID_PARAM);
    } else if (records == nullptr) {
        attest_trace("No memory");
    } else {
        std::uint32_t local_status = ATTEST_OK;
        count = collect_hw_integrity(request, records.get(), &local_status);
        if (count == 0)
            trace_no_data(__func__, local_status);
    }
    if (count != 0) {
        response.node_data = {records.get(), count};
        response.present |= response.has_node_data;
    }
    remote_attestation_api_get_platform_hw_integrity_Resp(client, &response, 1, 0, request_id);
    for (std::uint8_t i = 0; i < count; ++i)
        message_release(records.get()[i]);
}
