// What the layer answers itself, as bytes to bytes: health checking and reflection. Callable from any thread.
#pragma once

#include <cstddef>
#include <span>
#include <string>

// Values of HealthCheckResponse.ServingStatus.
enum class rpc_health { serving = 1, service_unknown = 3 };

// The health that a request asks for: of the server ("") or of the instance. A request that cannot be decoded
// asks for an unknown service.
rpc_health rpc_health_of(std::span<const std::byte> request, const std::string &instance);
std::string rpc_health_answer(rpc_health health);

// The answer to one message of a reflection stream; what cannot be decoded or found is answered with an error
// inside the message, as the protocol has it.
std::string rpc_reflection_answer(std::span<const std::byte> request);
