#include "trust_anchor/record_parts.h"

#include "agent/debug_trace.h"

namespace {

constexpr const char *QUOTE_KEY = "RSA_AIK_KEY";

} // namespace

bool read_pcr(const char *operation, kovc_session *session, std::uint32_t algorithm, std::uint32_t index,
              PCR_DUMP &entry)
{
    entry.index = index;
    entry.present = PCR_DUMP::has_index;
    std::uint8_t *value = nullptr;
    std::uint32_t length = 0;
    std::uint32_t unused = 0;
    kov_status status = kovc_pcr_read(session, algorithm, index, &value, &length, &unused);
    if (status != KOV_SUCCESS) {
        attest_trace_as(operation, "Failed to fetch PCR value %d  %s", static_cast<int>(index),
                        kov_status_string(status));
        return false;
    }
    entry.value = {value, length};
    entry.present |= PCR_DUMP::has_value;
    return true;
}

bool quote_pcrs(const char *operation, kovc_session *session, std::uint32_t algorithm, std::uint64_t mask,
                const message_bytes &nonce, quote_buffers &buffers)
{
    std::uint8_t *quote = nullptr;
    std::uint8_t *signature = nullptr;
    std::uint32_t quote_length = 0;
    std::uint32_t signature_length = 0;
    kov_status status = kovc_tpm2_pcr_quote(session, 0, QUOTE_KEY, algorithm, mask, algorithm, nonce.data,
                                            static_cast<std::uint32_t>(nonce.length), &quote, &quote_length,
                                            &signature, &signature_length);
    if (status != KOV_SUCCESS) {
        attest_trace_as(operation, "Failed to fetch PCR quote  %s", kov_status_string(status));
        std::free(quote);
        std::free(signature);
        return false;
    }
    buffers = {{quote, quote_length}, {signature, signature_length}};
    return true;
}

void trace_out_of_sync(const char *operation, int tries_remaining)
{
    attest_trace_as(operation, "PCR values and quote not in sync (tries remaining %d)", tries_remaining);
}
