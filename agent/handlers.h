// The callbacks of the remote attestation API: what is answered to whom. All run on the event-loop thread,
// one at a time. A request is put to every source the node has and answered once; a source that fails
// contributes nothing, and an answer without records means that no evidence was obtained.
#pragma once

#include <cstdint>

#include "platform/remote_attestation_api.h"

void connect_cb(remote_attestation_api_client client, void *, std::uint32_t status);
void disconnect_cb(remote_attestation_api_client client, std::uint32_t status);
// Drops the client's paused stream.
void error_cb(remote_attestation_api_client client, void *, std::uint32_t error);
// Goes on with the client's paused stream.
void flow_control_cb(remote_attestation_api_client client);

void get_certificate(remote_attestation_api_client client, const get_certificate_request *request,
                     std::uint32_t request_id);
void attest_pcrs(remote_attestation_api_client client, const attest_pcr_request *request,
                 std::uint32_t request_id);
void get_platform_boot_integrity_event_logs(remote_attestation_api_client client,
                                            const get_platform_boot_integrity_event_logs_request *request,
                                            std::uint32_t request_id);
void get_platform_ima_event_logs(remote_attestation_api_client client,
                                 const get_platform_ima_event_logs_request *request,
                                 std::uint32_t request_id);
void get_platform_hw_integrity(remote_attestation_api_client client,
                               const get_platform_hw_integrity_request *request, std::uint32_t request_id);
// Without a request: the flow of `client` is open again.
void stream_platform_ima_event_logs(remote_attestation_api_client client,
                                    const get_platform_ima_event_logs_request *request,
                                    std::uint32_t request_id);
