// The remote attestation API server, as the agent uses it: callbacks in, answers out.
//
// Everything here runs on the event manager's thread, one callback at a time. A client is a connection.
// Client handles and request ids are numbers that are never used twice in a process, and never 0: whatever is
// asked of a client that has gone fails with a status.
#pragma once

#include <cstdint>

#include "platform/levm.h"
#include "platform/messages.h"

using remote_attestation_api_client = std::uint64_t;
struct remote_attestation_api_server;

// What a send returns besides 0; nothing was sent then.
//
// The client's queue is full. A one-shot call has ended with RESOURCE_EXHAUSTED. A stream waits: when there
// is room the flow-resume callback comes, and a stream that sends nothing in it ends with ABORTED.
inline constexpr std::int32_t REMOTE_ATTESTATION_API_FLOW_CLOSED = -3;
// The client or the request is gone.
inline constexpr std::int32_t REMOTE_ATTESTATION_API_NO_CLIENT = -4;
// The message cannot be encoded, there is no memory for it, or too much waits for other clients. The call has
// ended with an error that says which.
inline constexpr std::int32_t REMOTE_ATTESTATION_API_NOT_SENT = -5;

// With client 0 and a status: a connection that could not be taken.
using remote_attestation_api_connect_callback = void (*)(remote_attestation_api_client, void *ignored,
                                                         std::uint32_t status);
using remote_attestation_api_disconnect_callback = void (*)(remote_attestation_api_client,
                                                            std::uint32_t status);
using remote_attestation_api_error_callback = void (*)(remote_attestation_api_client, void *ignored,
                                                       std::uint32_t error);
using remote_attestation_api_flow_resume_callback = void (*)(remote_attestation_api_client);
// The request belongs to the server and lives until the callback returns.
template <class Request>
using remote_attestation_api_request_callback = void (*)(remote_attestation_api_client,
                                                         const Request *request, std::uint32_t request_id);

// Where the server listens. The transport kind is TCP and the options are the layer's own; what is left to
// say is the address.
struct remote_attestation_api_endpoint {
    std::uint32_t address; // IPv4, host byte order
    std::uint32_t port;
};
struct remote_attestation_api_activation {
    enum : std::uint32_t { has_address = 1u << 0, has_port = 1u << 1 };
    std::uint32_t present;
    remote_attestation_api_endpoint endpoint; // an absent port means ATTEST_PORT, by default 50551
};

// ---- the server ----

// A server on the event manager; `options` is 0. Sets *server, and leaves it null on failure. 0 or a status.
std::uint32_t remote_attestation_api_server_handle_create(remote_attestation_api_server **server,
                                                          levm *manager, std::uint32_t options);

void remote_attestation_api_server_set_connect_callback(remote_attestation_api_server *server,
                                                        remote_attestation_api_connect_callback callback);
void remote_attestation_api_server_set_disconnect_callback(
    remote_attestation_api_server *server, remote_attestation_api_disconnect_callback callback);
// For a call that ends before its last answer (its client cancelled it or is gone; then the disconnect
// callback may follow), and for a request that cannot be decoded, which is answered without any field.
// `error` is a status.
void remote_attestation_api_server_set_error_callback(remote_attestation_api_server *server,
                                                      remote_attestation_api_error_callback callback);
// The name under which the health service answers; copied.
void remote_attestation_api_server_set_service_instance(remote_attestation_api_server *server,
                                                        const char *name);
void remote_attestation_api_server_set_flow_resume_callback(
    remote_attestation_api_server *server, remote_attestation_api_flow_resume_callback callback);
void remote_attestation_api_server_set_get_certificate_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_certificate_request> callback);
void remote_attestation_api_server_set_get_platform_boot_integrity_event_logs_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_platform_boot_integrity_event_logs_request> callback);
void remote_attestation_api_server_set_attest_pcrs_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<attest_pcr_request> callback);
void remote_attestation_api_server_set_get_platform_ima_event_logs_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_platform_ima_event_logs_request> callback);
void remote_attestation_api_server_set_get_platform_hw_integrity_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_platform_hw_integrity_request> callback);
void remote_attestation_api_server_set_stream_ima_event_logs_callback(
    remote_attestation_api_server *server,
    remote_attestation_api_request_callback<get_platform_ima_event_logs_request> callback);

// Listens and serves. Without TLS settings (ATTEST_TLS_DIR) only a loopback address is served, unless
// ATTEST_RPC_PLAINTEXT=1. 0, or a status that says what is missing; EINVAL's status for a null server.
std::uint32_t remote_attestation_api_server_activate(remote_attestation_api_server *server,
                                                     const remote_attestation_api_activation *parameters);

// Stops listening, ends all calls and connections (with their callbacks). 0, also when not active, or a
// status.
std::uint32_t remote_attestation_api_server_deactivate(remote_attestation_api_server *server);

// Releases the server, deactivating it first if need be. 0, or EINVAL's status for a null server.
std::uint32_t remote_attestation_api_server_handle_destroy(remote_attestation_api_server *server);

// ---- clients ----

// A number kept for the client, 0 at first and for a client that is gone.
std::uint64_t remote_attestation_api_server_get_user_context(remote_attestation_api_client client);
void remote_attestation_api_server_set_user_context(remote_attestation_api_client client,
                                                    std::uint64_t context);

struct remote_attestation_api_transport {
    remote_attestation_api_client client;
};
remote_attestation_api_transport
remote_attestation_api_client_get_transport(remote_attestation_api_client client);

// The connection's ends. Known from the connect callback until the disconnect callback has returned;
// otherwise *endpoint is zeroed. 0 or a status.
std::uint32_t transport_get_remote_endpoint(remote_attestation_api_transport transport,
                                            remote_attestation_api_endpoint *endpoint);
std::uint32_t transport_get_local_endpoint(remote_attestation_api_transport transport,
                                           remote_attestation_api_endpoint *endpoint);
// Off (0): every message goes out when it is sent (TCP_NODELAY). 0 or a status.
std::uint32_t transport_set_buffering(remote_attestation_api_transport transport, int on);

// ---- answers ----

// Each encodes the response and queues it for the client: 0, or one of the results above, and then nothing of
// the response is kept. `last` is 1 for a one-shot response and for the final message of a stream, which end
// the call. `rpc_status` is always 0. The response stays the caller's.
std::int32_t remote_attestation_api_get_certificate_Resp(remote_attestation_api_client client,
                                                         const get_certificate_response *response, int last,
                                                         std::uint32_t rpc_status, std::uint32_t request_id);
std::int32_t remote_attestation_api_attest_pcr_request_Resp(remote_attestation_api_client client,
                                                            const attest_pcr_response *response, int last,
                                                            std::uint32_t rpc_status,
                                                            std::uint32_t request_id);
std::int32_t remote_attestation_api_get_platform_boot_integrity_event_logs_Resp(
    remote_attestation_api_client client, const get_platform_boot_integrity_event_logs_response *response,
    int last, std::uint32_t rpc_status, std::uint32_t request_id);
std::int32_t remote_attestation_api_get_platform_ima_event_logs_Resp(
    remote_attestation_api_client client, const get_platform_ima_event_logs_response *response, int last,
    std::uint32_t rpc_status, std::uint32_t request_id);
std::int32_t remote_attestation_api_get_platform_hw_integrity_Resp(
    remote_attestation_api_client client, const get_platform_hw_integrity_response *response, int last,
    std::uint32_t rpc_status, std::uint32_t request_id);
std::int32_t remote_attestation_api_stream_ima_event_logs_Resp(remote_attestation_api_client client,
                                                               const NodeIMAData *message, int last,
                                                               std::uint32_t rpc_status,
                                                               std::uint32_t request_id);
