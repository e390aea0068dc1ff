// The operations by their path on the wire.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/remote_attestation_api.h"

struct rpc_callbacks {
    remote_attestation_api_connect_callback connect;
    remote_attestation_api_disconnect_callback disconnect;
    remote_attestation_api_error_callback error;
    remote_attestation_api_flow_resume_callback flow_resume;
    remote_attestation_api_request_callback<get_certificate_request> get_certificate;
    remote_attestation_api_request_callback<get_platform_boot_integrity_event_logs_request>
        get_platform_boot_integrity_event_logs;
    remote_attestation_api_request_callback<attest_pcr_request> attest_pcrs;
    remote_attestation_api_request_callback<get_platform_ima_event_logs_request> get_platform_ima_event_logs;
    remote_attestation_api_request_callback<get_platform_hw_integrity_request> get_platform_hw_integrity;
    remote_attestation_api_request_callback<get_platform_ima_event_logs_request> stream_ima_event_logs;
};

enum class rpc_method_kind {
    answer, // evidence in one message
    stream, // evidence in many
    health_check,
    health_watch,
    reflection
};

enum class rpc_delivery { delivered, undecodable, no_callback };

struct rpc_method {
    std::string_view path;
    rpc_method_kind kind;
    bool whole_log; // its answer is one message as large as a log
    // Decodes a request and calls its callback; null for what the layer answers itself.
    rpc_delivery (*deliver)(const rpc_callbacks &callbacks, remote_attestation_api_client client,
                            std::span<const std::byte> request, std::uint32_t request_id);
};

// Null when there is no such operation.
const rpc_method *rpc_method_find(std::string_view path);

// The last part of the path: "AttestPcrs".
std::string_view rpc_method_name(const rpc_method &method);

// Sets of evidence operations, a bit each.
std::uint32_t rpc_method_bit(const rpc_method &method);
std::uint32_t rpc_method_all_bits();
std::uint32_t rpc_method_bits_of(std::string_view name); // 0: no evidence operation has this name

constexpr bool rpc_method_is_evidence(const rpc_method &method)
{
    return method.kind == rpc_method_kind::answer || method.kind == rpc_method_kind::stream;
}
