// The remote attestation API server of the process.
#pragma once

#include "platform/levm.h"
#include "platform/remote_attestation_api.h"

extern remote_attestation_api_server *at_server_handle; // null until created

// Creates the server on the event manager, registers the callbacks under the name `service_instance`,
// activates it on the node's internal address and runs the event loop until it is stopped. A failed step is
// traced and ends the start; the handle, if there is one, is then left for the caller to destroy.
void attestation_agent_server_start(levm *event_manager, const char *service_instance);
