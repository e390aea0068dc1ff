#include "agent/status.h"

#include <iterator>

namespace {

constexpr status_text texts[] = {
    {ATTEST_ERR_NO_MEMORY, "Out of memory"},
    {ATTEST_ERR_SERVICE_FAILED, "Attestation service failed"},
    {ATTEST_ERR_BOOT_LOG_READ, "Failed to read Boot event logs"},
    {ATTEST_ERR_EVENT_TOO_LONG, "Event length too long"},
    {ATTEST_ERR_UNKNOWN_TEMPLATE, "Unknown IMA Template"},
    {ATTEST_ERR_NO_DATA, "No data available"},
    {ATTEST_ERR_INVALID_PARAM, "Invalid parameter"},
    {ATTEST_ERR_KOV_INIT, "Failed to init kovc APIs"},
    {ATTEST_ERR_NOT_SUPPORTED, "Operation not supported"},
    {ATTEST_ERR_KOV_COMM, "Failed to talk to KOV"},
    {ATTEST_ERR_MORE_DATA, "There is data to be sent"},
    {ATTEST_ERR_FLOW_PAUSED, "Attestation data flow is paused"},
};

} // namespace

const status_domain attest_status_domain = {"Infra Attestation", 0x1CA0, std::size(texts), texts};
