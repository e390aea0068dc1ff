// The answers: six functions over one send.
#include <cstdlib>
#include <utility>

#include "platform/remote_attestation_api.h"
#include "platform/rpc/calls.h"
#include "platform/rpc/server.h"

namespace {

constexpr const char *TOO_LARGE =
    "the answer cannot be put into one message; StreamPlatformImaEventLogs sends "
    "the measurement list in parts";

// Into one block of exactly its size, which gRPC takes over.
bool encode(const message_descriptor &descriptor, const void *message, rpc_message *encoded)
{
    std::byte dummy{};
    encoded->bytes.reset(static_cast<std::byte *>(std::malloc(encoded->size)));
    if (encoded->bytes == nullptr && encoded->size != 0)
        return false;
    std::byte *out = encoded->bytes != nullptr ? encoded->bytes.get() : &dummy;
    const std::int64_t length = message_encode(descriptor, message, {out, encoded->size});
    return length == static_cast<std::int64_t>(encoded->size);
}

// Whether the message is a large one of a call that was not held back while the queues are full, because its
// messages are small where nobody lies: a management controller's may have any size.
bool is_too_much(const remote_attestation_api_server &server, const rpc_method &method, std::uint64_t size)
{
    return !method.whole_log && size >= server.limits.large_message_bytes &&
           rpc_connections_queued(server) > server.limits.all_queues_bytes;
}

std::int32_t send_message(remote_attestation_api_client client, const message_descriptor &descriptor,
                          const void *message, bool last, std::uint32_t request_id)
{
    const rpc_connection *connection = rpc_connection_find(client);
    const auto call = connection != nullptr ? rpc_call_find(*connection->client, request_id) : nullptr;
    if (call == nullptr)
        return REMOTE_ATTESTATION_API_NO_CLIENT;
    const std::int64_t size = message != nullptr ? message_encoded_size(descriptor, message) : -1;
    if (size < 0) {
        rpc_call_end(*call, rpc_code::resource_exhausted, TOO_LARGE);
        return REMOTE_ATTESTATION_API_NOT_SENT;
    }
    if (is_too_much(*connection->server, *call->method, static_cast<std::uint64_t>(size))) {
        rpc_call_end(*call, rpc_code::resource_exhausted, "too much waits for other clients; ask again");
        return REMOTE_ATTESTATION_API_NOT_SENT;
    }
    rpc_message encoded{nullptr, static_cast<std::size_t>(size), 0};
    const std::int32_t refused = rpc_call_reserve(*call, encoded.size, last, &encoded.cost);
    if (refused != 0)
        return refused;
    if (!encode(descriptor, message, &encoded)) {
        rpc_call_give_room_back(*call, encoded.cost);
        rpc_call_end(*call, rpc_code::resource_exhausted, "no memory for the answer; ask again");
        return REMOTE_ATTESTATION_API_NOT_SENT;
    }
    return rpc_call_send(*call, std::move(encoded), last);
}

template <class Message>
std::int32_t send_response(remote_attestation_api_client client, const Message *message, int last,
                           std::uint32_t request_id)
{
    return send_message(client, message_descriptor_of<Message>(), message, last != 0, request_id);
}

} // namespace

std::int32_t remote_attestation_api_get_certificate_Resp(remote_attestation_api_client client,
                                                         const get_certificate_response *response, int last,
                                                         std::uint32_t, std::uint32_t request_id)
{
    return send_response(client, response, last, request_id);
}

std::int32_t remote_attestation_api_attest_pcr_request_Resp(remote_attestation_api_client client,
                                                            const attest_pcr_response *response, int last,
                                                            std::uint32_t, std::uint32_t request_id)
{
    return send_response(client, response, last, request_id);
}

std::int32_t remote_attestation_api_get_platform_boot_integrity_event_logs_Resp(
    remote_attestation_api_client client, const get_platform_boot_integrity_event_logs_response *response,
    int last, std::uint32_t, std::uint32_t request_id)
{
    return send_response(client, response, last, request_id);
}

std::int32_t
remote_attestation_api_get_platform_ima_event_logs_Resp(remote_attestation_api_client client,
                                                        const get_platform_ima_event_logs_response *response,
                                                        int last, std::uint32_t, std::uint32_t request_id)
{
    return send_response(client, response, last, request_id);
}

std::int32_t
remote_attestation_api_get_platform_hw_integrity_Resp(remote_attestation_api_client client,
                                                      const get_platform_hw_integrity_response *response,
                                                      int last, std::uint32_t, std::uint32_t request_id)
{
    return send_response(client, response, last, request_id);
}

std::int32_t remote_attestation_api_stream_ima_event_logs_Resp(remote_attestation_api_client client,
                                                               const NodeIMAData *message, int last,
                                                               std::uint32_t, std::uint32_t request_id)
{
    return send_response(client, message, last, request_id);
}
