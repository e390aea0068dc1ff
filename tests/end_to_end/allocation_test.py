"""Every allocation of the agent's own code fails, alone and with all that come after it, over one request of each
operation: the agent lives, the answer is a whole one, one without the record, or a status that says so, nothing is left
behind, and the next request is answered as ever.

ALLOCATIONS=all tries every one; without it, those of a long row are sampled.
"""
import contextlib
import http.client
import mmap
import os
import pathlib
import re
import struct
import subprocess
import unittest
import urllib.request

import grpc

import load
import measured_list
import node
from node import agent_control
from operations import api, method

LIBRARY = node.BUILD / "tests/end_to_end/libfailing_allocator.so"
CONTROL = "/dev/shm/failing_allocator"
METRICS = "http://127.0.0.1:9551/metrics"
ALL = os.environ.get("ALLOCATIONS") == "all"
# Operations whose records are whole or not there, while a log may lack single events or fields of them.
WHOLE_OR_ABSENT = ("GetCertificate", "AttestPcrs", "GetPlatformHwIntegrity")
# What a call may end with when the memory for it is short: its status, or the end of its connection.
SAID_CLEARLY = (grpc.StatusCode.RESOURCE_EXHAUSTED, grpc.StatusCode.UNAVAILABLE)
# Functions in the executable that headers have put there: of the C++ library, which libraries use too; and of others.
ANYBODYS = re.compile(r"([^(]* )?std::|__gnu_cxx::")
A_LIBRARYS = re.compile(r"([^(]* )?(grpc|google|prometheus|remote_attestation_api)::")
NONE = (1 << 32) - 1  # no request makes so many
KEPT = 64  # blocks that the agent may keep of all those requests: what has grown once


class Allocations(unittest.TestCase):
    def setUp(self):
        node.IMA_LOG.parent.mkdir(parents=True, exist_ok=True)
        node.IMA_LOG.write_bytes(measured_list.make(1050, 5))
        pathlib.Path(CONTROL).write_bytes(control_of(node.AGENT))
        with open(CONTROL, "r+b") as file:
            self.control = mmap.mmap(file.fileno(), 0)
        self.start()

    def start(self, *settings):
        node.restart(f"LD_PRELOAD={LIBRARY}", f"FAILING_ALLOCATOR={CONTROL}", *settings)
        # A channel with connections of its own: not those that another one had to the agent before.
        self.channel = grpc.insecure_channel(os.environ["NODE_ADDRESS"], [("grpc.use_local_subchannel_pool", 1)])
        self.whole = {operation: self.ask(operation) for operation in load.REQUESTS}
        for operation, answer in self.whole.items():
            self.assertTrue(answer and all(answer), operation)

    def ask(self, operation, timeout=30):
        """The parts of the answer that do not change from request to request; or the status of its failure. While memory
        is short nobody waits for a new connection."""
        request = load.REQUESTS[operation]
        if "Ima" in operation:
            request = type(request)(start_event=0, event_count=0)
        try:
            answer = method(self.channel, operation)(request, timeout=timeout, wait_for_ready=not self.control[0])
            records = list(answer) if operation.startswith("Stream") else answer.node_data
            return [self.content(record) for record in records if record.ByteSize() != 0]
        except grpc.RpcError as failure:
            return failure.code()

    def content(self, record):
        for field in ("uptime", "quote", "quote_signature", "signature"):
            if field in record.DESCRIPTOR.fields_by_name:
                if record.HasField(field):
                    record.ClearField(field)
        return record.SerializeToString(deterministic=True)

    def fail_at(self, operation, number, for_ever):
        """The answer while that allocation fails, and how many there were."""
        struct.pack_into("<II", self.control, 4, number, 0)
        struct.pack_into("<I", self.control, 16, for_ever)
        struct.pack_into("<I", self.control, 0, 1)
        try:
            return self.ask(operation, 5), struct.unpack_from("<I", self.control, 8)[0]
        finally:
            struct.pack_into("<I", self.control, 0, 0)

    def live(self):
        return struct.unpack_from("<i", self.control, 12)[0]

    def test_each_fails(self):
        self.fail_each(False)

    def test_each_and_all_after_it_fail(self):
        self.fail_each(True)

    def fail_each(self, for_ever):
        problems = []
        for operation in load.REQUESTS:
            _, total = self.fail_at(operation, NONE, for_ever)
            number, tried, reached = 0, 0, True
            while reached:
                answer, asked = self.fail_at(operation, number, for_ever)
                reached = asked > number
                problems += [f"{operation}, allocation {number}: {problem}"
                             for problem in self.problems(operation, answer)]
                tried += reached
                number += step_behind(number, total)
            print(f"{operation}: {total} allocations, {tried} of them failed; {self.live()} blocks kept", flush=True)
        self.assertEqual(problems, [])
        # What belonged to a call that broke off goes at the agent's next look at its connections.
        node.wait_for(lambda: self.live() < KEPT, "the release of what was got")

    def test_a_scrape_of_the_metrics_without_memory_is_lost_and_no_more(self):
        self.start("ATTEST_METRICS=9551")
        reached, number = True, 0
        while reached:
            struct.pack_into("<III", self.control, 0, 1, number, 0)
            self.scrape()
            reached = struct.unpack_from("<I", self.control, 8)[0] > number
            struct.pack_into("<I", self.control, 0, 0)
            number += 1
            self.assertIn("attest_build_info", self.scrape(), f"after allocation {number} failed")
        self.assertGreater(number, 10)

    def scrape(self):
        """What is answered; nothing when the agent ends the connection."""
        with contextlib.suppress(OSError, http.client.HTTPException), urllib.request.urlopen(METRICS, timeout=30) as answer:
            return answer.read().decode()
        return ""

    def problems(self, operation, answer):
        found = []
        if isinstance(answer, list):
            if len(answer) > len(self.whole[operation]):
                found.append("more than the whole answer")
            if operation in WHOLE_OR_ABSENT and answer not in ([], self.whole[operation]):
                found.append("a part of the record")
            if "Ima" in operation and not is_part(answer, self.whole[operation]):
                found.append("an event with a field that is not its own")
        elif answer not in SAID_CLEARLY:
            found.append(str(answer))
        # A death may come after the answer: it is the next request that tells.
        if self.ask(operation) != self.whole[operation]:
            found.append("not answered after it")
        if not agent_control.is_running():
            found.append(f"the agent died: {agent_control.status()}, {node.agent_words()[-2000:]}")
            self.start()
        return found


def step_behind(number, total):
    """To the next allocation that fails. The last of a log are those of events from the kernel's list, all before them
    those of the cache, which gives whole chunks or none."""
    if ALL or number < 100:
        return 1
    return min(number // 4, total - 400 - number) if number < total - 400 else 7


def is_part(answer, whole):
    """Whether each event is one of the whole list's, but for fields that it lacks."""
    events = {event.event_num: event for record in whole for event in api.NodeIMAData.FromString(record).events}
    return all(value == getattr(events[event.event_num], field.name)
               for record in answer for event in api.NodeIMAData.FromString(record).events
               for field, value in event.ListFields())


def control_of(program):
    """The content of the file that governs the allocator: nothing fails, and which functions are not its own."""
    ranges = set()
    for line in subprocess.run(["nm", "--defined-only", "--print-size", "--demangle", program], check=True,
                               capture_output=True, text=True).stdout.splitlines():
        symbol = re.match(r"([0-9a-f]+) ([0-9a-f]+) [tTwW] (.*)", line)
        if symbol and (ANYBODYS.match(symbol[3]) or A_LIBRARYS.match(symbol[3])):
            begin = int(symbol[1], 16)
            ranges.add((begin, begin + int(symbol[2], 16), int(not A_LIBRARYS.match(symbol[3]))))
    return struct.pack("<20xI", len(ranges)) + b"".join(struct.pack("<III", *each) for each in sorted(ranges))


if __name__ == "__main__":
    unittest.main()
