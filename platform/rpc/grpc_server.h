// gRPC behind plain functions: the one place that includes its headers.
#pragma once

#include <memory>
#include <string>

#include "platform/rpc/settings.h"
#include "platform/rpc/shared.h"

struct rpc_grpc_server;
struct rpc_grpc_server_deleter {
    // Stops it: ends all calls, waits for its callbacks. The connections of one that retires must be shut.
    void operator()(rpc_grpc_server *server) const noexcept;
};
using rpc_grpc_server_ptr = std::unique_ptr<rpc_grpc_server, rpc_grpc_server_deleter>;

// A running server without a socket of its own; null when gRPC refuses (it has logged why).
rpc_grpc_server_ptr rpc_grpc_start(const std::shared_ptr<rpc_shared> &shared, const rpc_tls &tls);

// Lets a server go without haste: its clients are told to connect anew, calls under way go on, what is not
// over after `patience_ms` ends. Until rpc_grpc_retired, deleting it would wait. False, with nothing changed,
// when no thread may be had for that.
bool rpc_grpc_retire(rpc_grpc_server &server, std::uint64_t patience_ms);
bool rpc_grpc_retired(const rpc_grpc_server &server);

// Hands over an accepted connection; gRPC owns the descriptor from here on.
void rpc_grpc_take_connection(rpc_grpc_server &server, int fd);

// Operations of a live call (rpc_call::reactor), under its client's lock. A write takes the message's bytes
// over; the last one carries the call's good end with it.
void rpc_reactor_read(rpc_reactor *reactor);
void rpc_reactor_write(rpc_reactor *reactor, rpc_message &message, bool last);
void rpc_reactor_finish(rpc_reactor *reactor, rpc_code code, const std::string &text);
