#include "platform/tpm/callback_tcti.h"

#include <cstring>

#include <tss2/tss2_tpm2_types.h>

#include "platform/tpm/client_status.h"

namespace {

constexpr std::uint64_t TCTI_MAGIC = 0x6B6F765F74637469; // "kov_tcti"

callback_tcti &of(TSS2_TCTI_CONTEXT *context)
{
    return *reinterpret_cast<callback_tcti *>(context);
}

std::uint32_t big_endian(const std::uint8_t *bytes, std::size_t count)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < count; ++i)
        value = value << 8 | bytes[i];
    return value;
}

bool is_response(const std::uint8_t *bytes, std::uint32_t length)
{
    if (length < IPC_HEADER_SIZE || ipc_message_size(bytes) != length)
        return false;
    const std::uint32_t tag = big_endian(bytes, 2);
    return (tag == TPM2_ST_NO_SESSIONS || tag == TPM2_ST_SESSIONS) &&
           tpm_response_code_plausible(big_endian(bytes + 6, 4));
}

TSS2_RC transmit(TSS2_TCTI_CONTEXT *context, std::size_t size, const std::uint8_t *command)
{
    callback_tcti &tcti = of(context);
    if (tcti.failure != KOV_SUCCESS)
        return TSS2_TCTI_RC_IO_ERROR;
    if (tcti.awaiting)
        return TSS2_TCTI_RC_BAD_SEQUENCE;
    tcti.failure = tcti.ipc.send(tcti.channel, command, static_cast<std::uint32_t>(size));
    if (tcti.failure != KOV_SUCCESS)
        return TSS2_TCTI_RC_IO_ERROR;
    tcti.awaiting = true;
    tcti.length = 0;
    return TSS2_RC_SUCCESS;
}

kov_status fetch_response(callback_tcti &tcti)
{
    std::uint32_t length = 0;
    const kov_status status = tcti.ipc.receive(tcti.channel, tcti.response.data(),
                                               static_cast<std::uint32_t>(tcti.response.size()), &length);
    if (status != KOV_SUCCESS)
        return status;
    if (length > tcti.response.size() || !is_response(tcti.response.data(), length))
        return KOV_ERR_BAD_RESPONSE;
    tcti.length = length;
    return KOV_SUCCESS;
}

// `response` null asks for the room that is needed. The timeout is the channel's, whatever the TSS would
// like.
//
// The TSS does not heed where a response ends: one that is too short it reads on into the command that still
// lies in its buffer, and may take that for an answer. So it is told to make room for the largest response,
// and what this one leaves of the room is filled with ones: sizes and counts that it refuses.
TSS2_RC receive(TSS2_TCTI_CONTEXT *context, std::size_t *size, std::uint8_t *response, std::int32_t)
{
    callback_tcti &tcti = of(context);
    if (tcti.failure != KOV_SUCCESS)
        return TSS2_TCTI_RC_IO_ERROR;
    if (!tcti.awaiting)
        return TSS2_TCTI_RC_BAD_SEQUENCE;
    if (tcti.length == 0) {
        tcti.failure = fetch_response(tcti);
        if (tcti.failure != KOV_SUCCESS)
            return TSS2_TCTI_RC_IO_ERROR;
    }
    const std::size_t room = *size;
    *size = response == nullptr ? tcti.response.size() : tcti.length;
    if (response == nullptr)
        return TSS2_RC_SUCCESS;
    if (room < tcti.length)
        return TSS2_TCTI_RC_INSUFFICIENT_BUFFER;
    std::memcpy(response, tcti.response.data(), tcti.length);
    std::memset(response + tcti.length, 0xFF, room - tcti.length);
    tcti.awaiting = false;
    return TSS2_RC_SUCCESS;
}

void finalize(TSS2_TCTI_CONTEXT *) {}

TSS2_RC cancel(TSS2_TCTI_CONTEXT *)
{
    return TSS2_TCTI_RC_NOT_IMPLEMENTED;
}

TSS2_RC get_poll_handles(TSS2_TCTI_CONTEXT *, TSS2_TCTI_POLL_HANDLE *, std::size_t *)
{
    return TSS2_TCTI_RC_NOT_IMPLEMENTED;
}

TSS2_RC set_locality(TSS2_TCTI_CONTEXT *, std::uint8_t)
{
    return TSS2_TCTI_RC_NOT_IMPLEMENTED;
}

TSS2_RC make_sticky(TSS2_TCTI_CONTEXT *, TPM2_HANDLE *, std::uint8_t)
{
    return TSS2_TCTI_RC_NOT_IMPLEMENTED;
}

} // namespace

void callback_tcti_init(callback_tcti &tcti, const kov_ipc_callbacks &ipc, void *channel)
{
    tcti.common = {};
    tcti.common.v1.magic = TCTI_MAGIC;
    tcti.common.v1.version = 2;
    tcti.common.v1.transmit = transmit;
    tcti.common.v1.receive = receive;
    tcti.common.v1.finalize = finalize;
    tcti.common.v1.cancel = cancel;
    tcti.common.v1.getPollHandles = get_poll_handles;
    tcti.common.v1.setLocality = set_locality;
    tcti.common.makeSticky = make_sticky;
    tcti.ipc = ipc;
    tcti.channel = channel;
    tcti.failure = KOV_SUCCESS;
    tcti.awaiting = false;
    tcti.length = 0;
}
