"""The operations of the service as a stranger's client has them: by the classes that protoc makes of the contract."""
import node

api = node.load_contract()
SERVICE = "/remote_attestation_api.RemoteAttestationApi"
MESSAGES = {  # operation: the classes of its request and of its answer
    "GetCertificate": (api.get_certificate_request, api.get_certificate_response),
    "AttestPcrs": (api.attest_pcr_request, api.attest_pcr_response),
    "GetPlatformBootIntegrityEventLogs": (api.get_platform_boot_integrity_event_logs_request,
                                          api.get_platform_boot_integrity_event_logs_response),
    "GetPlatformHwIntegrity": (api.get_platform_hw_integrity_request, api.get_platform_hw_integrity_response),
    "GetPlatformImaEventLogs": (api.get_platform_ima_event_logs_request, api.get_platform_ima_event_logs_response),
    "StreamPlatformImaEventLogs": (api.get_platform_ima_event_logs_request, api.NodeIMAData),
}


def method(channel, operation):
    """The operation on that channel, to be called with its request."""
    request, response = MESSAGES[operation]
    kind = channel.unary_stream if operation.startswith("Stream") else channel.unary_unary
    return kind(f"{SERVICE}/{operation}", request.SerializeToString, response.FromString)
