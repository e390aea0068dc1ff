"""Every allocation of the agent's own code fails, one after the other, over one request of each operation: the agent lives,
the answer is a whole one, one without the record, or a status that says so, nothing is left behind, and the next request
is answered as ever.

ALLOCATIONS=all tries every one; without it, those of a long row are sampled.
"""
import mmap
import os
import pathlib
import struct
import unittest

import grpc

import load
import measured_list
import node
from measured_list import SERVICE
from node import agent_control

BUILD = pathlib.Path(node.agent_program()).parents[1]
LIBRARY = BUILD / "tests/end_to_end/libfailing_allocator.so"
CONTROL = "/dev/shm/failing_allocator"
ALL = os.environ.get("ALLOCATIONS") == "all"
# What a call may end with when the memory for it is short: its status, or the end of its connection.
SAID_CLEARLY = (grpc.StatusCode.RESOURCE_EXHAUSTED, grpc.StatusCode.UNAVAILABLE)
KEPT = 64  # blocks that the agent may keep of all those requests: what has grown once


class Allocations(unittest.TestCase):
    def setUp(self):
        node.IMA_LOG.parent.mkdir(parents=True, exist_ok=True)
        node.IMA_LOG.write_bytes(measured_list.make(1050, 5))
        pathlib.Path(CONTROL).write_bytes(bytes(4096))
        with open(CONTROL, "r+b") as file:
            self.control = mmap.mmap(file.fileno(), 0)
        self.start()

    def start(self):
        node.restart(f"LD_PRELOAD={LIBRARY}", f"FAILING_ALLOCATOR={CONTROL}")
        self.channel = grpc.insecure_channel(os.environ["NODE_ADDRESS"])
        self.whole = {operation: self.ask(operation) for operation in load.OPERATIONS}
        for operation, answer in self.whole.items():
            self.assertTrue(answer and all(answer), operation)

    def ask(self, operation):
        """The parts of the answer that do not change from request to request; or the status of its failure."""
        request, response = load.OPERATIONS[operation]
        if "Ima" in operation:
            request = type(request)(start_event=0, event_count=0)
        streams = operation.startswith("Stream")
        kind = self.channel.unary_stream if streams else self.channel.unary_unary
        call = kind(f"{SERVICE}/{operation}", type(request).SerializeToString, response.FromString)
        try:
            answer = call(request, timeout=30, wait_for_ready=True)
            records = [record for record in answer] if streams else answer.node_data
            return [self.content(record) for record in records if record.ByteSize() != 0]
        except grpc.RpcError as failure:
            return failure.code()

    def content(self, record):
        for field in ("uptime", "quote", "quote_signature", "signature"):
            if field in record.DESCRIPTOR.fields_by_name:
                if record.HasField(field):
                    record.ClearField(field)
        return record.SerializeToString(deterministic=True)

    def fail_at(self, operation, number):
        """The answer while that allocation fails, and how many there were."""
        struct.pack_into("<II", self.control, 4, number, 0)
        struct.pack_into("<I", self.control, 0, 1)
        try:
            return self.ask(operation), struct.unpack_from("<I", self.control, 8)[0]
        finally:
            struct.pack_into("<I", self.control, 0, 0)

    def live(self):
        return struct.unpack_from("<i", self.control, 12)[0]

    def test_each_fails(self):
        problems = []
        for operation in load.OPERATIONS:
            number, tried, reached = 0, 0, True
            while reached:
                answer, asked = self.fail_at(operation, number)
                reached = asked > number
                problems += [f"{operation}, allocation {number}: {problem}"
                             for problem in self.problems(operation, answer)]
                tried += reached
                number += 1 if ALL or number < 40 else number // 4
            print(f"{operation}: {asked} allocations, {tried} of them failed; {self.live()} blocks kept", flush=True)
        self.assertEqual(problems, [])
        self.assertLess(self.live(), KEPT)

    def problems(self, operation, answer):
        found = []
        if isinstance(answer, list):
            if len(answer) > len(self.whole[operation]):
                found.append("more than the whole answer")
        elif answer not in SAID_CLEARLY:
            found.append(str(answer))
        # A death may come after the answer: it is the next request that tells.
        if self.ask(operation) != self.whole[operation]:
            found.append("not answered after it")
        if not agent_control.is_running():
            self.start()
            found.append("the agent died")
        return found


if __name__ == "__main__":
    unittest.main()
