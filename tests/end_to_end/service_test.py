"""The service as a stranger meets it: a client made from the .proto by protoc, with none of our code."""
import os
import socket
import unittest

import grpc

import node

SERVICE = "remote_attestation_api.RemoteAttestationApi"


api = node.load_contract()
ONE_SHOT = {
    "GetCertificate": (api.get_certificate_request, api.get_certificate_response),
    "AttestPcrs": (api.attest_pcr_request, api.attest_pcr_response),
    "GetPlatformBootIntegrityEventLogs": (api.get_platform_boot_integrity_event_logs_request,
                                          api.get_platform_boot_integrity_event_logs_response),
    "GetPlatformHwIntegrity": (api.get_platform_hw_integrity_request, api.get_platform_hw_integrity_response),
    "GetPlatformImaEventLogs": (api.get_platform_ima_event_logs_request, api.get_platform_ima_event_logs_response),
}


class Service(unittest.TestCase):
    def setUp(self):
        self.channel = grpc.insecure_channel(os.environ["NODE_ADDRESS"])
        self.addCleanup(self.channel.close)

    def call(self, method, request, service=SERVICE):
        """Sends the bytes `request`; the bytes of the answer."""
        return self.channel.unary_unary(f"/{service}/{method}")(request, timeout=60)

    def test_every_operation_answers(self):
        for method, (request, response) in ONE_SHOT.items():
            with self.subTest(method):
                answer = response.FromString(self.call(method, request().SerializeToString()))
                self.assertEqual([record.node_name for record in answer.node_data],
                                 [os.uname().nodename] if "Boot" in method else [])
        stream = self.channel.unary_stream(f"/{SERVICE}/StreamPlatformImaEventLogs")
        messages = list(stream(b"", timeout=60))
        self.assertGreaterEqual(len(messages), 1)

    def errors_traced(self):
        return sum(line.startswith("error_cb(): Attestation Agent: generic error ") for line in node.trace())

    def test_requests_that_cannot_be_decoded_get_no_evidence_and_a_trace_line(self):
        for method, (_, response) in ONE_SHOT.items():
            for what, request in {"garbage": b"\xff" * 40, "cut field": b"\x0a\x7fabc"}.items():
                with self.subTest(method=method, request=what):
                    before = self.errors_traced()
                    self.assertEqual(response.FromString(self.call(method, request)), response())
                    node.wait_for(lambda: self.errors_traced() == before + 1, "the trace of a bad request")
        before = self.errors_traced()
        stream = self.channel.unary_stream(f"/{SERVICE}/StreamPlatformImaEventLogs")
        self.assertEqual(list(stream(b"\xff" * 40, timeout=60)), [b""])
        node.wait_for(lambda: self.errors_traced() == before + 1, "the trace of a bad request")

    def test_fields_that_are_not_known_are_skipped(self):
        method = "GetPlatformBootIntegrityEventLogs"
        _, response = ONE_SHOT[method]
        for what, request in {"unknown field": b"\xfa\x01\x03abc", "wrong wire type": b"\x15\0\0\0\0"}.items():
            with self.subTest(what):
                self.assertEqual(len(response.FromString(self.call(method, request)).node_data), 1)

    def test_nonces(self):
        echo = {8: True, 64: True, 65: False, 1000: False}
        for size, echoed in echo.items():
            nonce = os.urandom(size)
            request = api.attest_pcr_request(pcr_indices=[0], nonce=nonce)
            answer = api.attest_pcr_response.FromString(self.call("AttestPcrs", request.SerializeToString()))
            self.assertEqual(answer.nonce, nonce if echoed else b"")
            request = api.get_platform_hw_integrity_request(nonce=nonce)
            answer = api.get_platform_hw_integrity_response.FromString(
                self.call("GetPlatformHwIntegrity", request.SerializeToString()))
            self.assertEqual(answer.nonce, nonce if echoed else b"")

    def test_errors_of_the_call_itself(self):
        cases = {"Nothing": (b"", grpc.StatusCode.UNIMPLEMENTED),
                 "GetCertificate": (b"\x0a\x80\x80\x10" + bytes(1 << 18), grpc.StatusCode.RESOURCE_EXHAUSTED)}
        for method, (request, code) in cases.items():
            with self.subTest(method), self.assertRaises(grpc.RpcError) as caught:
                self.call(method, request)
            self.assertEqual(caught.exception.code(), code)

    def test_health_by_the_instance_name(self):
        name = f"rat_agent_{os.uname().nodename}".encode()
        for service in (b"", name):
            request = b"\x0a" + bytes([len(service)]) + service if service else b""
            self.assertEqual(self.call("Check", request, "grpc.health.v1.Health"), b"\x08\x01")
        with self.assertRaises(grpc.RpcError) as caught:
            self.call("Check", b"\x0a\x05other", "grpc.health.v1.Health")
        self.assertEqual(caught.exception.code(), grpc.StatusCode.NOT_FOUND)

    def test_connections_are_traced_with_both_ends(self):
        host, port = os.environ["NODE_ADDRESS"].split(":")
        with socket.create_connection((host, int(port))) as silent:
            own = silent.getsockname()[1]
            expected = f"connect_cb(): Attestation Agent: client connection from 127.0.0.1: {own}"
            node.wait_for(lambda: expected in node.trace(), "trace of a client that says nothing")
        node.wait_for(lambda: f"disconnect_cb(): Attestation Agent: client 127.0.0.1:{own} disconnected"
                      in node.trace(), "trace of its end")
        self.assertIn(f"connect_cb(): to 127.0.0.1: {port}", node.trace())

    def test_a_silent_client_holds_up_nobody(self):
        host, port = os.environ["NODE_ADDRESS"].split(":")
        with socket.create_connection((host, int(port))):
            self.assertEqual(node.attestctl("boot-log").returncode, 0)


class Restart(unittest.TestCase):
    def test_a_long_node_name_is_cut_or_refused_but_named_alike_everywhere(self):
        node.restart("ATTEST_NODE_NAME=card-with-a-name-of-31-letters-")
        self.addCleanup(node.restart)
        name = node.ask("boot-log")["node_data"][0]["node_name"]
        self.assertEqual(name, "card-with-a-name-of-31-letters-")
        with grpc.insecure_channel(os.environ["NODE_ADDRESS"]) as channel:
            service = f"rat_agent_{name}".encode()
            check = channel.unary_unary("/grpc.health.v1.Health/Check")
            self.assertEqual(check(b"\x0a" + bytes([len(service)]) + service, timeout=60), b"\x08\x01")


if __name__ == "__main__":
    unittest.main()
