// Statuses of the client library, made from what went wrong below it.
#pragma once

#include <exception>
#include <new>

#include <tss2/tss2_common.h>

#include "platform/trust_anchor_client.h"

kov_status kov_status_from_errno(int error);
kov_status kov_status_from_tss(TSS2_RC code);

// Whether a response code can have come from a TPM 2.0 or its resource manager. What cannot must not travel
// on: a code of 1 would read as success.
bool tpm_response_code_plausible(TSS2_RC code);

// Runs a part of an operation: what the standard library throws (memory) ends here.
template <class Operation>
kov_status guarded(Operation operation) noexcept
{
    try {
        return operation();
    } catch (const std::bad_alloc &) {
        return KOV_ERR_NO_MEMORY;
    } catch (const std::exception &) {
        return KOV_ERR_INVALID_PARAM; // a length beyond what a container takes
    }
}

// The status again, counted (platform/metrics.h) when it is a failure.
kov_status kov_status_counted(kov_status status);

// Runs an operation of the public interface.
template <class Operation>
kov_status counted(Operation operation) noexcept
{
    return kov_status_counted(guarded(operation));
}
