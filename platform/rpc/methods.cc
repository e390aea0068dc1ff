#include "platform/rpc/methods.h"

#include <algorithm>
#include <iterator>

namespace {

template <class Request, remote_attestation_api_request_callback<Request> rpc_callbacks::*member>
rpc_delivery deliver(const rpc_callbacks &callbacks, remote_attestation_api_client client,
                     std::span<const std::byte> bytes, std::uint32_t request_id)
{
    const auto callback = callbacks.*member;
    if (callback == nullptr)
        return rpc_delivery::no_callback;
    owned_message<Request> request;
    if (!message_decode(bytes, *request))
        return rpc_delivery::undecodable;
    callback(client, request.get(), request_id);
    return rpc_delivery::delivered;
}

using kind = rpc_method_kind;

constexpr rpc_method methods[] = {
    {"/remote_attestation_api.RemoteAttestationApi/GetCertificate", kind::answer, false,
     deliver<get_certificate_request, &rpc_callbacks::get_certificate>},
    {"/remote_attestation_api.RemoteAttestationApi/AttestPcrs", kind::answer, false,
     deliver<attest_pcr_request, &rpc_callbacks::attest_pcrs>},
    {"/remote_attestation_api.RemoteAttestationApi/GetPlatformBootIntegrityEventLogs", kind::answer, true,
     deliver<get_platform_boot_integrity_event_logs_request,
             &rpc_callbacks::get_platform_boot_integrity_event_logs>},
    {"/remote_attestation_api.RemoteAttestationApi/GetPlatformHwIntegrity", kind::answer, false,
     deliver<get_platform_hw_integrity_request, &rpc_callbacks::get_platform_hw_integrity>},
    {"/remote_attestation_api.RemoteAttestationApi/GetPlatformImaEventLogs", kind::answer, true,
     deliver<get_platform_ima_event_logs_request, &rpc_callbacks::get_platform_ima_event_logs>},
    {"/remote_attestation_api.RemoteAttestationApi/StreamPlatformImaEventLogs", kind::stream, false,
     deliver<get_platform_ima_event_logs_request, &rpc_callbacks::stream_ima_event_logs>},
    {"/grpc.health.v1.Health/Check", kind::health_check, false, nullptr},
    {"/grpc.health.v1.Health/Watch", kind::health_watch, false, nullptr},
    {"/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", kind::reflection, false, nullptr},
};

} // namespace

const rpc_method *rpc_method_find(std::string_view path)
{
    const auto *found = std::find_if(std::begin(methods), std::end(methods),
                                     [path](const rpc_method &method) { return method.path == path; });
    return found == std::end(methods) ? nullptr : found;
}

std::string_view rpc_method_name(const rpc_method &method)
{
    return method.path.substr(method.path.rfind('/') + 1);
}

std::uint32_t rpc_method_bit(const rpc_method &method)
{
    return std::uint32_t{1} << (&method - std::begin(methods));
}

std::uint32_t rpc_method_all_bits()
{
    std::uint32_t bits = 0;
    for (const rpc_method &method : methods)
        bits |= rpc_method_is_evidence(method) ? rpc_method_bit(method) : 0;
    return bits;
}

std::uint32_t rpc_method_bits_of(std::string_view name)
{
    const auto *found =
        std::find_if(std::begin(methods), std::end(methods), [name](const rpc_method &method) {
            return rpc_method_is_evidence(method) && rpc_method_name(method) == name;
        });
    return found == std::end(methods) ? 0 : rpc_method_bit(*found);
}
