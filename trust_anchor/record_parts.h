// What the records of the trust anchor are made of. Nothing here leaks: what an operation could not use is
// freed.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "agent/status.h"
#include "platform/messages.h"
#include "platform/owners.h"
#include "platform/trust_anchor_client.h"

// A zeroed array for a message's list; null when there is no memory, never for a count of 0.
template <class T>
T *allocate_items(std::uint32_t count)
{
    return static_cast<T *>(std::calloc(count != 0 ? count : 1, sizeof(T)));
}

// Reads PCR `index` of the bank into `entry`, which then owns the value. False, traced under the operation's
// name, when the module refuses.
bool read_pcr(const char *operation, kovc_session *session, std::uint32_t algorithm, std::uint32_t index,
              PCR_DUMP &entry);

// A statement over PCRs and its signature, as the library hands them out.
struct quote_buffers {
    message_bytes quote;
    message_bytes signature;
};

// Quotes the PCRs in `mask` with the attestation key over the nonce; false, traced, and nothing to free, when
// the module refuses.
bool quote_pcrs(const char *operation, kovc_session *session, std::uint32_t algorithm, std::uint64_t mask,
                const message_bytes &nonce, quote_buffers &buffers);

// The same into a record with `quote` and `quote_signature`, which stay absent when the module refuses: a
// record without a quote is still worth sending.
template <class Record>
void quote_into(const char *operation, kovc_session *session, std::uint32_t algorithm, std::uint64_t mask,
                const message_bytes &nonce, Record &record)
{
    quote_buffers buffers = {};
    if (!quote_pcrs(operation, session, algorithm, mask, nonce, buffers))
        return;
    record.quote = buffers.quote;
    record.quote_signature = buffers.signature;
    record.present |= Record::has_quote | Record::has_quote_signature;
}

// Whether the PCR values read and the quote belong together. The module gives nothing to tell by: always
// true. A verifier tells, for it compares the values with the quoted digest.
bool pcr_quote_in_sync();

inline constexpr int MAX_QUOTE_TRIES = 3;

// Traces that values and quote did not belong together.
void trace_out_of_sync(const char *operation, int tries_remaining);

// Calls `collect` (which begins by dropping what an earlier call collected, and returns a status of the
// agent) until values and quote belong together. ATTEST_ERR_KOV_COMM when they never do: the module then
// gives no coherent answer.
template <class Collect>
std::uint32_t collect_in_sync(const char *operation, Collect collect)
{
    for (int remaining = MAX_QUOTE_TRIES; remaining > 0;) {
        if (std::uint32_t status = collect(); status != ATTEST_OK)
            return status;
        if (pcr_quote_in_sync())
            return ATTEST_OK;
        trace_out_of_sync(operation, --remaining);
    }
    return ATTEST_ERR_KOV_COMM;
}
