#include "bmc/bmc_operations.h"

#include <limits>
#include <span>

#include "agent/debug_trace.h"
#include "agent/node_location.h"
#include "agent/status.h"
#include "bmc/rest_transport.h"
#include "platform/owners.h"

namespace {

// What the lists of a record may take, so that a hostile BMC's 48 MiB of empty items do not become 3 GB. A
// kernel's list of 200,000 events takes 21 MB.
constexpr std::uint64_t RECORD_LISTS_MAX = std::uint64_t{256} << 20;

// An operation that is relayed: a row each.
struct relayed_operation {
    const char *name;         // under which it traces
    std::uint32_t number;     // what the BMC dispatches on
    std::size_t request_size; // an encoded request that is longer is not relayed
    const message_descriptor &(*request)();
    const message_descriptor &(*reply)();
    const char *start_line;
};

enum : std::size_t { BOOT_LOG, PCRS, IMA_LOG, CERTIFICATES, HW_INTEGRITY };

// The sizes are those of the BMC firmware's request messages: no longer request is relayed.
constexpr relayed_operation operations[] = {
    {"attestation_get_bmc_sb_event_logs", 1, 262,
     message_descriptor_of<get_platform_boot_integrity_event_logs_request>,
     message_descriptor_of<NodeBootIntegrityLog>, "Starting BIV fetch with BMC..."},
    {"attestation_attest_pcrs_bmc", 2, 978, message_descriptor_of<attest_pcr_request>,
     message_descriptor_of<NodePCRData>, "Starting PCR fetch with BMC..."},
    {"attestation_get_bmc_ima_event_logs", 3, 284, message_descriptor_of<get_platform_ima_event_logs_request>,
     message_descriptor_of<NodeIMAData>, "Starting IMA fetch with BMC..."},
    {"attestation_get_certchain_bmc", 4, 786, message_descriptor_of<get_certificate_request>,
     message_descriptor_of<SystemCertificates>, "Starting certificate fetch with BMC..."},
    {"get_platform_hw_integrity_bmc", 5, 530, message_descriptor_of<get_platform_hw_integrity_request>,
     message_descriptor_of<tpm_hw_integrity>, "Starting HW integrity fetch with BMC..."},
};
static_assert(operations[BOOT_LOG].number == 1 && operations[PCRS].number == 2 &&
              operations[IMA_LOG].number == 3 && operations[CERTIFICATES].number == 4 &&
              operations[HW_INTEGRITY].number == 5);

// What the BMC was asked and what it gave, released with its owner.
struct exchange {
    malloc_ptr<std::byte> request;
    std::int32_t request_length = 0;
    malloc_ptr<char> node_name;
    malloc_ptr<std::uint8_t> response;
    std::uint32_t response_length = 0;
};

std::uint32_t prepare(const relayed_operation &operation, const void *request, exchange &with)
{
    with.request.reset(static_cast<std::byte *>(std::calloc(1, operation.request_size)));
    if (with.request == nullptr) {
        attest_trace_as(operation.name, "Failed to allocate request msg");
        return ATTEST_ERR_NO_MEMORY;
    }
    std::int64_t length =
        message_encode(operation.request(), request, {with.request.get(), operation.request_size});
    if (length < 0 || static_cast<std::uint64_t>(length) > operation.request_size) {
        attest_trace_as(operation.name, "Request of %lld bytes is not relayed",
                        static_cast<long long>(length));
        return ATTEST_ERR_NO_DATA;
    }
    with.request_length = static_cast<std::int32_t>(length);
    with.node_name = allocate_node_location(operation.name);
    return with.node_name == nullptr ? ATTEST_ERR_NO_MEMORY : ATTEST_OK;
}

// Whether the BMC gave a response.
bool exchange_with_bmc(const relayed_operation &operation, exchange &with)
{
    if (login_cert() != 0)
        return false;
    std::uint8_t *response = nullptr;
    int result = rest_operation(operation.number, with.node_name.get(),
                                reinterpret_cast<const std::uint8_t *>(with.request.get()),
                                with.request_length, &response, &with.response_length);
    with.response.reset(response);
    return result == 0 && response != nullptr && with.response_length != 0;
}

std::uint32_t relay(const relayed_operation &operation, const void *request, void *reply)
{
    attest_trace_as(operation.name, "%s", operation.start_line);
    exchange with;
    if (std::uint32_t status = prepare(operation, request, with))
        return status;
    if (!exchange_with_bmc(operation, with)) {
        attest_trace_as(operation.name, "Failed to fetch data from BMC");
        return ATTEST_ERR_NO_DATA;
    }
    attest_trace_as(operation.name, "Received response %d", static_cast<int>(with.response_length));
    bool decoded =
        message_decode(operation.reply(), std::as_bytes(std::span(with.response.get(), with.response_length)),
                       reply, RECORD_LISTS_MAX);
    return decoded ? ATTEST_OK : ATTEST_ERR_NO_DATA;
}

} // namespace

std::uint32_t attestation_get_bmc_sb_event_logs(const get_platform_boot_integrity_event_logs_request *request,
                                                NodeBootIntegrityLog *reply)
{
    return relay(operations[BOOT_LOG], request, reply);
}

std::uint32_t attestation_attest_pcrs_bmc(const attest_pcr_request *request, NodePCRData *reply)
{
    return relay(operations[PCRS], request, reply);
}

std::uint32_t attestation_get_bmc_ima_event_logs(const get_platform_ima_event_logs_request *request,
                                                 NodeIMAData *reply)
{
    return relay(operations[IMA_LOG], request, reply);
}

std::uint32_t attestation_get_certchain_bmc(const get_certificate_request *request, SystemCertificates *reply)
{
    return relay(operations[CERTIFICATES], request, reply);
}

std::uint32_t get_platform_hw_integrity_bmc(const get_platform_hw_integrity_request *request,
                                            tpm_hw_integrity *reply)
{
    return relay(operations[HW_INTEGRITY], request, reply);
}
