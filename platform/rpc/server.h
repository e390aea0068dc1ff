// The server and its connections, on the loop's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/owners.h"
#include "platform/remote_attestation_api.h"
#include "platform/rpc/grpc_server.h"
#include "platform/rpc/methods.h"
#include "platform/rpc/refusals.h"
#include "platform/rpc/settings.h"
#include "platform/rpc/shared.h"

struct rpc_connection {
    remote_attestation_api_client id = 0;
    remote_attestation_api_server *server = nullptr;
    remote_attestation_api_endpoint remote{}, local{};
    std::uint64_t user_context = 0;
    std::uint64_t acknowledged = 0; // bytes, when last looked at
    std::shared_ptr<rpc_client> client;
    unique_fd socket;     // our duplicate of the descriptor that gRPC has
    levm_watch_ptr watch; // after `socket`: it is released before the descriptor is closed
};

struct remote_attestation_api_server {
    std::uint64_t number = 0; // never used twice
    levm *manager = nullptr;
    rpc_callbacks callbacks{};
    rpc_limits limits;
    std::string instance;

    // While active.
    std::shared_ptr<rpc_shared> shared;
    rpc_grpc_server_ptr grpc;
    std::vector<rpc_grpc_server_ptr> former;    // with the earlier certificates, until they have retired
    rpc_settings settings;                      // in use
    std::string tls_complaint, allow_complaint; // last told about what cannot be used; empty when all is well
    remote_attestation_api_endpoint endpoint{};
    unique_fd listener;
    levm_watch_ptr accept_watch; // null while accepting rests
    levm_watch_ptr accept_pause; // the timer that ends the rest
    levm_watch_ptr sweep;        // a timer, while there are connections
    std::unordered_map<remote_attestation_api_client, std::unique_ptr<rpc_connection>> connections;
    std::uint64_t most_queued = 0; // bytes of all queues together, since memory was given back last

    rpc_log_limit full_log, accept_log, garbage_log, stall_log;
};

// ---- server.cc ----

// The work that rpc_post posts: `context` is a server's number.
void rpc_server_read_inbox(void *context);

// ---- reload.cc ----

// Looks whether the files have changed: new certificates serve new connections, a new allow-list the next
// call. What cannot be used is told to the operator once, and what was in use stays so.
void rpc_reload_changed(remote_attestation_api_server &server);

// Ends what has retired.
void rpc_reload_end_retired(remote_attestation_api_server &server);

// ---- listener.cc ----

// Binds and listens. 0, or a status that was told to the operator.
std::uint32_t rpc_listener_open(remote_attestation_api_server &server,
                                const remote_attestation_api_endpoint &endpoint);
void rpc_listener_close(remote_attestation_api_server &server);

// ---- connections.cc ----

// The bytes in the queues of all clients.
std::uint64_t rpc_connections_queued(const remote_attestation_api_server &server);

// A connection of any server in the process, or null.
rpc_connection *rpc_connection_find(remote_attestation_api_client client);

// Takes an accepted socket: registers it, tells the agent, hands it to gRPC.
void rpc_connection_open(remote_attestation_api_server &server, unique_fd socket,
                         const remote_attestation_api_endpoint &remote);

// Ends a connection: the error callback with `error` (an errno) if a call was outstanding, then the
// disconnect callback. `reset` drops what the client has not taken yet.
void rpc_connection_close(rpc_connection &connection, int error, bool reset);
void rpc_connection_close_all(remote_attestation_api_server &server, int error);
