"""attestctl on answers in many messages and of many nodes: streams, progress, limits."""

import json
import os
import re
import resource
import signal
import subprocess
import threading
import time
import unittest

import remote_attestation_api_pb2 as api
from fake_node import (
    BOOT_LOG, METHODS, PROGRAM, STREAM, FakeNode, Program, from_json, ima_record, run, say_nothing, targets_file,
)


class Stream(Program):
    def test_pieces_come_out_as_one_list(self):
        pieces = [ima_record(1, 1000), ima_record(1001, 1000), ima_record(2001, 5)]
        with FakeNode({STREAM: pieces}) as node:
            table = run(node.target, "ima-log", "--stream")
            lines = run(node.target, "ima-log", "--stream", "--json")
        self.expect(table, 0)
        numbers = re.findall(r"^ +(\d+) +10", table.stdout.decode(), re.MULTILINE)
        self.assertEqual(numbers, [str(n) for n in range(1, 2006)])
        self.assertEqual(table.stdout.decode().count("node rack1"), 1)
        self.expect(lines, 0)
        records = [from_json(json.loads(x), api.NodeIMAData()) for x in lines.stdout.decode().splitlines()]
        self.assertEqual(records, pieces)

    def test_a_list_ends_with_a_message_that_names_its_node(self):
        nameless = api.NodeIMAData(events=ima_record(1001, 5).events)
        for last, count in ((api.NodeIMAData(), "1,000"), (nameless, "1,005")):
            with self.subTest(count), FakeNode({STREAM: [ima_record(1, 1000), last]}) as node:
                self.expect(run(node.target, "ima-log", "--stream"), 1,
                            f".* ended the stream early, after {count} events .*")
                report = json.loads(run(node.target, "attest", "--json").stdout)
                self.assertFalse(next(row for row in report["evidence"] if row["kind"] == "ima-log")["came"])
        with FakeNode({STREAM: [ima_record(1, 0)]}) as node:  # nothing new
            self.expect(run(node.target, "ima-log", "--stream", "--start", "9"), 0)

    def test_time_limit_is_for_each_message_and_not_for_all(self):
        def slowly(request, context):
            for i in range(4):
                yield ima_record(1 + i, 1)
                time.sleep(1)

        def stalls(request, context):
            yield ima_record(1, 1)
            say_nothing(request, context)

        with FakeNode({STREAM: slowly}) as node:
            self.expect(run(node.target, "--timeout", "3", "ima-log", "--stream"), 0)
        with FakeNode({STREAM: stalls}) as node:
            done = run(node.target, "--timeout", "2", "ima-log", "--stream")
        self.expect(done, 2, ".*: no message within 2 s, after 1 event .*")

    def test_interrupt_ends_it_and_says_what_came(self):
        gone = threading.Event()

        def endless(request, context):
            context.add_callback(gone.set)
            yield ima_record(1, 3)
            gone.wait(30)

        with FakeNode({STREAM: endless}) as node:
            command = [PROGRAM, "--target", node.target, "ima-log", "--stream", "--json"]
            with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as child:
                first = child.stdout.readline()
                child.send_signal(signal.SIGINT)
                words = child.stderr.read().decode()
                status = child.wait(30)
            self.assertTrue(gone.wait(10), "the node was not told")
        self.assertEqual(len(json.loads(first)["events"]), 3)
        self.assertEqual((status, words.split(",")[0]),
                         (130, "attestctl: interrupted after 3 events (the last is number 3) in 1 message"))

    def test_progress_is_for_terminals(self):
        proceed = threading.Event()

        def pieces(request, context):
            yield ima_record(1, 1000)
            proceed.wait(30)
            yield ima_record(1001, 10)

        def look(seen):
            if b"1,000 events" in seen:
                proceed.set()

        with FakeNode({STREAM: pieces}) as node:
            status, seen = self.run_in_terminal("stderr", "--target", node.target, "ima-log", "--stream", look=look)
        self.assertEqual(status, 0)
        self.assertRegex(seen, r"\r\x1b\[K1,000 events, [\d,]+/s, 0\.\d MB")
        self.assertRegex(seen, r"\r\x1b\[Kattestctl: received 1,010 events .* in 2 messages.*\r\n\Z")

    def test_progress_of_many_nodes_is_for_terminals(self):
        with FakeNode({}) as node, targets_file(node.target, "127.0.0.1:1") as targets:
            status, seen = self.run_in_terminal("stderr", "attest", "--targets", targets, "--jobs", "1")
        self.assertEqual(status, 1)
        last = r"\r\x1b\[K2 of 2 nodes: 0 verified, 1 not verified, 1 not asked to the end\r\x1b\[K\Z"
        self.assertRegex(seen, last)

    def test_one_of_many_nodes_may_not_take_as_long_as_it_likes(self):
        def slowly(_, context):
            time.sleep(0.6)
            return b""

        with FakeNode({name: slowly for name in METHODS}) as node, targets_file(node.target) as targets:
            done = run(None, "attest", "--targets", targets, "--node-timeout", "1")
            self.assertRegex(done.stdout.decode(), r"NOT VERIFIED: .*(did not come to an end in time|within 0\.\d+ s)")
            self.assertLess(len(node.requests), 4)
        with FakeNode({"GetCertificate": say_nothing}) as node, targets_file(node.target) as targets:
            done = run(None, "attest", "--targets", targets, "--node-timeout", "3", "--timeout", "50")
        self.assertIn("NOT VERIFIED: ", done.stdout.decode())
        self.assertRegex(done.stdout.decode(), r"no answer within [0-3](\.\d+)? s")

    def test_one_of_many_nodes_may_not_send_as_much_as_it_likes(self):
        large = api.get_platform_boot_integrity_event_logs_response(
            node_data=[api.NodeBootIntegrityLog(events=[api.BOOT_EVENT(event_data=bytes(17 << 20))])])
        with FakeNode({BOOT_LOG: large}) as node, targets_file(node.target) as targets:
            done = run(None, "attest", "--targets", targets, "--json")
        boot_log = next(row for row in json.loads(done.stdout)["evidence"] if row["kind"] == "boot-log")
        self.assertFalse(boot_log["came"])
        self.assertIn("RESOURCE_EXHAUSTED", boot_log["text"])

    def test_list_does_not_pile_up_in_memory(self):
        message = ima_record(1, 1000, signature=bytes(1000))  # 1.15 MB on the wire
        sent = peak_kb = 0

        def pieces(request, context):
            nonlocal sent
            for sent in range(250):
                yield message

        with FakeNode({STREAM: pieces}) as node:
            command = [PROGRAM, "--target", node.target, "ima-log", "--stream"]
            environment = {**os.environ, "ASAN_OPTIONS": "quarantine_size_mb=4"}
            with subprocess.Popen(command, stdout=subprocess.PIPE, env=environment) as child:
                # As long as nobody reads the output the node must come to a halt.
                before = -1
                while sent == 0 or before != sent:
                    before = sent
                    time.sleep(0.5)
                self.assertLess(sent, 30)
                # A slow reader: gRPC's own estimate would let the node send ever more ahead of it.
                while child.stdout.read(1 << 16):
                    # Not from getrusage: that counts what this process had when it forked.
                    with open(f"/proc/{child.pid}/status", encoding="ascii") as file:
                        peak_kb = int((re.findall(r"VmHWM:\s+(\d+)", file.read()) or [peak_kb])[0])
                    time.sleep(0.005)
                self.assertEqual((child.wait(30), sent), (0, 249))
        self.assertLess(peak_kb, 80_000, "for a list of 290 MB")


if __name__ == "__main__":
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    unittest.main()
