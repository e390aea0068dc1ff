#include "agent/handlers.h"

#include "agent/debug_trace.h"

namespace {

struct address_bytes {
    int a, b, c, d;
};

// Most significant first, as an address is written.
address_bytes bytes_of(std::uint32_t address)
{
    auto byte = [address](int shift) { return static_cast<int>(address >> shift & 0xff); };
    return {byte(24), byte(16), byte(8), byte(0)};
}

} // namespace

void connect_cb(remote_attestation_api_client client, void *, std::uint32_t status)
{
    if (status != 0) {
        attest_trace("Attestation Agent: unsuccessful connection from client (status = %d)\n",
                     static_cast<int>(status));
        return;
    }
    attest_trace("Attestation Agent: Successful connection from client\n");
    remote_attestation_api_transport transport = remote_attestation_api_client_get_transport(client);
    remote_attestation_api_endpoint remote = {};
    remote_attestation_api_endpoint local = {};
    transport_get_remote_endpoint(transport, &remote);
    transport_get_local_endpoint(transport, &local);
    address_bytes from = bytes_of(remote.address);
    attest_trace("Attestation Agent: client connection from %d.%d.%d.%d: %d", from.a, from.b, from.c, from.d,
                 static_cast<int>(remote.port));
    address_bytes to = bytes_of(local.address);
    attest_trace("to %d.%d.%d.%d: %d\n", to.a, to.b, to.c, to.d, static_cast<int>(local.port));
    transport_set_buffering(transport, 0); // every message goes out when it is sent
}

void disconnect_cb(remote_attestation_api_client client, std::uint32_t status)
{
    if (status != 0) {
        attest_trace("Attestation Agent: unsuccessful disconnection (status = %d)\n",
                     static_cast<int>(status));
        return;
    }
    remote_attestation_api_endpoint remote = {};
    transport_get_remote_endpoint(remote_attestation_api_client_get_transport(client), &remote);
    address_bytes from = bytes_of(remote.address);
    attest_trace("Attestation Agent: client %d.%d.%d.%d:%d disconnected\n", from.a, from.b, from.c, from.d,
                 static_cast<int>(remote.port));
}
