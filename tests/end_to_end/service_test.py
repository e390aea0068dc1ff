"""The service as a stranger meets it: a client made from the .proto by protoc, with none of our code."""
import os
import socket
import unittest

import grpc

import node
from operations import MESSAGES, SERVICE, api

ONE_SHOT = {name: messages for name, messages in MESSAGES.items() if not name.startswith("Stream")}
STREAM = f"{SERVICE}/StreamPlatformImaEventLogs"
HEALTH = "/grpc.health.v1.Health"


class Service(unittest.TestCase):
    def setUp(self):
        self.channel = grpc.insecure_channel(os.environ["NODE_ADDRESS"])
        self.addCleanup(self.channel.close)

    def call(self, method, request, service=SERVICE):
        """Sends the bytes `request`; the bytes of the answer."""
        return self.channel.unary_unary(f"{service}/{method}")(request, timeout=60)

    def ask(self, method, request):
        """The same of a message, or of bytes that are none; a message."""
        data = request if isinstance(request, bytes) else request.SerializeToString()
        return ONE_SHOT[method][1].FromString(self.call(method, data))

    def test_every_operation_answers(self):
        for method in ONE_SHOT:
            with self.subTest(method):
                self.assertEqual([record.node_name for record in self.ask(method, b"").node_data],
                                 [os.uname().nodename] if "Boot" in method else [])
        self.assertGreaterEqual(len(list(self.channel.unary_stream(STREAM)(b"", timeout=60))), 1)

    def test_requests_that_cannot_be_decoded_get_no_evidence_and_a_trace_line(self):
        def errors_traced():
            return sum(line.startswith("error_cb(): Attestation Agent: generic error ") for line in node.trace())

        calls = [(method, request) for method in ONE_SHOT for request in (b"\xff" * 40, b"\x0a\x7fabc")]
        for method, request in (*calls, (STREAM, b"\xff" * 40)):
            with self.subTest(method=method, request=request):
                before = errors_traced()
                if method == STREAM:
                    self.assertEqual(list(self.channel.unary_stream(STREAM)(request, timeout=60)), [b""])
                else:
                    self.assertEqual(self.ask(method, request), ONE_SHOT[method][1]())
                node.wait_for(lambda: errors_traced() == before + 1, "the trace of a bad request")

    def test_fields_that_are_not_known_are_skipped(self):
        for what, request in {"unknown field": b"\xfa\x01\x03abc", "wrong wire type": b"\x15\0\0\0\0"}.items():
            with self.subTest(what):
                self.assertEqual(len(self.ask("GetPlatformBootIntegrityEventLogs", request).node_data), 1)

    def test_nonces(self):
        for size, echoed in {8: True, 64: True, 65: False, 1000: False}.items():
            nonce = os.urandom(size)
            for method, request in (("AttestPcrs", api.attest_pcr_request(pcr_indices=[0], nonce=nonce)),
                                    ("GetPlatformHwIntegrity", api.get_platform_hw_integrity_request(nonce=nonce))):
                with self.subTest(method, size=size):
                    self.assertEqual(self.ask(method, request).nonce, nonce if echoed else b"")

    def test_errors_of_the_call_itself(self):
        for service, method, request, code in (
                (SERVICE, "Nothing", b"", grpc.StatusCode.UNIMPLEMENTED),
                (SERVICE, "GetCertificate", b"\x0a\x80\x80\x10" + bytes(1 << 18), grpc.StatusCode.RESOURCE_EXHAUSTED),
                (HEALTH, "Check", b"\x0a\x05other", grpc.StatusCode.NOT_FOUND)):
            with self.subTest(method), self.assertRaises(grpc.RpcError) as caught:
                self.call(method, request, service)
            self.assertEqual(caught.exception.code(), code)

    def test_connections_are_traced_with_both_ends_and_a_silent_one_holds_up_nobody(self):
        host, port = os.environ["NODE_ADDRESS"].split(":")
        with socket.create_connection((host, int(port))) as silent:
            own = silent.getsockname()[1]
            expected = f"connect_cb(): Attestation Agent: client connection from 127.0.0.1: {own}"
            node.wait_for(lambda: expected in node.trace(), "trace of a client that says nothing")
            self.assertEqual(node.attestctl("boot-log").returncode, 0)
        node.wait_for(lambda: f"disconnect_cb(): Attestation Agent: client 127.0.0.1:{own} disconnected"
                      in node.trace(), "trace of its end")
        self.assertIn(f"connect_cb(): to 127.0.0.1: {port}", node.trace())

    def test_health_by_the_instance_name_also_of_the_longest_node_name(self):
        longest = "card-with-a-name-of-31-letters-"
        node.restart(f"ATTEST_NODE_NAME={longest}")
        self.addCleanup(node.restart)
        self.assertEqual(node.ask("boot-log")["node_data"][0]["node_name"], longest)
        instance = f"rat_agent_{longest}".encode()
        for request in (b"", b"\x0a" + bytes([len(instance)]) + instance):
            self.assertEqual(self.call("Check", request, HEALTH), b"\x08\x01")


if __name__ == "__main__":
    unittest.main()
