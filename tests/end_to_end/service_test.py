"""The service as a stranger meets it: a client made from the .proto by protoc, with none of our code."""
import os
import socket
import unittest

import grpc

import node
from operations import MESSAGES, SERVICE

ONE_SHOT = {name: messages for name, messages in MESSAGES.items() if not name.startswith("Stream")}
HEALTH = "/grpc.health.v1.Health"


class Service(unittest.TestCase):
    def setUp(self):
        self.channel = grpc.insecure_channel(os.environ["NODE_ADDRESS"])
        self.addCleanup(self.channel.close)

    def call(self, method, request, service=SERVICE):
        """Sends the bytes `request`; the bytes of the answer."""
        return self.channel.unary_unary(f"{service}/{method}")(request, timeout=60)

    def test_every_operation_answers(self):
        for method, messages in ONE_SHOT.items():
            with self.subTest(method):
                answer = messages[1].FromString(self.call(method, b""))
                self.assertEqual([record.node_name for record in answer.node_data],
                                 [os.uname().nodename] if "Boot" in method else [])
        stream = self.channel.unary_stream(f"{SERVICE}/StreamPlatformImaEventLogs")
        self.assertGreaterEqual(len(list(stream(b"", timeout=60))), 1)

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
