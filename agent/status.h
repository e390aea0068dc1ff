// Status codes of the agent's operations, the error domain "Infra Attestation". Texts: status_strerror.
#pragma once

#include <cstdint>

#include "platform/status.h"

enum : std::uint32_t {
    ATTEST_OK = 0,
    ATTEST_ERR_NO_MEMORY = 1,
    ATTEST_ERR_SERVICE_FAILED = 2,
    ATTEST_ERR_BOOT_LOG_READ = 3,
    ATTEST_ERR_EVENT_TOO_LONG = 4,
    ATTEST_ERR_UNKNOWN_TEMPLATE = 5,
    ATTEST_ERR_NO_DATA = 6,
    ATTEST_ERR_INVALID_PARAM = 7,
    ATTEST_ERR_KOV_INIT = 8,
    ATTEST_ERR_NOT_SUPPORTED = 9,
    ATTEST_ERR_KOV_COMM = 10,
    ATTEST_ERR_MORE_DATA = 11,
    ATTEST_ERR_FLOW_PAUSED = 12
};

// The domain's description, for the platform's error-text service.
extern const status_domain attest_status_domain;
