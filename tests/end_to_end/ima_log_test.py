"""The measurement list of a node, whole and as a stream, as a stranger's client gets it: every event of every answer
is compared with the list itself."""
import os
import signal
import struct
import subprocess
import threading
import time
import unittest

import grpc

import measured_list
import node
from measured_list import Client, Events
from operations import api

LENGTH = 250_000  # two blocks of the cache are sealed, the third is half full
SHORT = 110_000  # one is


def taken(messages):
    """The events of a stream, or of an answer's one record."""
    return [event for message in messages for event in message.events]


class ImaLog(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.list = Events(measured_list.make(LENGTH + 5000, 7))

    def begin(self, length=LENGTH, cached=True, warm=False):
        """A boot with a list of `length` events, nothing kept. With `warm` the cache has been filled since, and the
        trace is on."""
        node.forget_boot()
        node.IMA_LOG.write_bytes(self.list.first(length))
        if not cached:
            node.CACHE.write_text("a file where the cache wants its directory")
        node.agent("start", "ATTEST_TRACE=none")  # three lines of each event that is read from the list
        self.client = self.connect()
        if warm:
            for _ in self.client.stream():
                pass
            for flag in ("attest", "agent"):
                subprocess.run(["attest-trace", "on", flag], check=True)

    def connect(self):
        client = Client()
        self.addCleanup(client.channel.close)
        return client

    def append(self, first, last):
        with open(node.IMA_LOG, "ab") as file:
            file.write(self.list.bytes[self.list.ends[first - 1]:self.list.ends[last]])

    def compare(self, events, first, last):
        """The events are those of the list from `first` to `last`, each once and in order."""
        self.assertEqual((len(events), events[0].event_num if events else first), (last - first + 1, first))
        for number, event in enumerate(events, first):
            if (event.event_num, event.template_hash, event.event_name) != (number, *self.list.content[number]):
                self.fail(f"event {number}: {event}")

    def marks(self, events):
        return [event.duplicate if event.HasField("duplicate") else None for event in events]

    def test_cached_and_uncached_answers_hold_the_list_and_agree(self):
        starts = (0, 1, 999, 1000, 1001, 99_999, 100_000, 100_001, 200_500, 240_000, 249_999, 250_000, 300_000)
        marks = {}
        self.begin(cached=False)
        for start in starts:
            events = taken(self.client.stream(start, 3000))
            self.compare(events, start + 1, min(start + 3000, max(LENGTH, start)))
        for what, ask in {"stream": self.client.stream, "at once": self.client.at_once}.items():
            events = taken(ask())
            self.compare(events, 1, LENGTH)
            marks[f"uncached {what}"] = self.marks(events)
        self.begin()
        for what, ask in {"first": self.client.stream, "stream": self.client.stream,
                          "at once": self.client.at_once}.items():
            events = taken(ask())
            self.compare(events, 1, LENGTH)
            marks[f"cached {what}"] = self.marks(events)
        for start in starts:
            first = min(self.chunk_of(start)[0], LENGTH + 1)
            for ask in (self.client.stream, self.client.at_once):
                self.compare(taken(ask(start, 2000)), first, min(first + 1999, LENGTH))
        node.restart()
        marks["after a restart"] = self.marks(taken(self.connect().stream()))
        # The first request of the uncached node began within the list: a pair's owner is the event that was read
        # first, so its marks are compared with its own alone.
        self.assertEqual(marks["uncached stream"], marks["uncached at once"])
        for what in ("cached stream", "cached at once", "after a restart"):
            self.assertEqual(marks[what], marks["cached first"], what)
        self.assertGreater(marks["cached first"].count(1), 1000)
        listed = subprocess.run(["attest-cache", "verify"], capture_output=True, text=True, check=False)
        self.assertEqual(listed.returncode, 0, listed.stdout + listed.stderr)

    def test_a_list_that_grows_while_it_is_streamed_comes_to_its_new_end(self):
        self.begin(SHORT)
        stream = self.client.stream()
        events = list(next(stream).events)
        self.append(SHORT + 1, SHORT + 4000)
        events += taken(stream)
        self.compare(events, 1, SHORT + 4000)

    def test_a_stream_that_the_agents_restart_cut_goes_on_behind_its_last_event(self):
        for end in ("stop", "kill"):
            self.begin(SHORT)
            stream = self.client.stream()
            events = [event for _, message in zip(range(60), stream) for event in message.events]
            node.agent(end)
            with self.assertRaises(grpc.RpcError) as cut:
                for message in stream:
                    events += message.events
            self.assertEqual(cut.exception.code(), grpc.StatusCode.UNAVAILABLE)
            node.agent("start")
            last = events[-1].event_num
            rest = [event for event in taken(self.connect().stream(last)) if event.event_num > last]
            self.compare(events + rest, 1, SHORT)

    def test_a_client_that_stalls_costs_little_memory_and_holds_up_no_short_answer(self):
        self.begin(SHORT, warm=True)
        self.compare(taken(self.client.at_once(0, 1000)), 1, 1000)
        before = node.resident(node.agent_pid())
        held = self.connect().stream()
        node.wait_for(lambda: self.traced("Slowing down cache responses"), "a pause of the stalled stream")
        if not node.INSTRUMENTED:
            self.assertLess(node.resident(node.agent_pid()) - before, 64 << 20)
        for start in (0, 50_000, 109_000):
            self.compare(taken(self.client.at_once(start, 1)), *self.chunk_of(start))
        self.assertEqual(node.attestctl("pcrs", "--pcr", "0").returncode, 0)
        # There is one record of a paused stream. A second one that is refused is given up, and says so by a message
        # without any field. Before that come chunks of the live list, as far as there is room for them again; it is
        # read from the begin of the block in which the cache was left.
        other = self.connect()
        second = other.stream()
        node.wait_for(lambda: self.traced("giving up on id"), "the end of the second stream")
        messages = list(second)
        self.assertEqual(messages[-1], api.NodeIMAData())
        events = taken(messages)
        in_order = next((i for i, event in enumerate(events) if event.event_num != i + 1), len(events))
        self.compare(events[:in_order], 1, in_order)
        self.assertTrue(in_order < SHORT)
        # The first goes on as soon as its client does, and a cancelled one leaves the record to others.
        events = [event for _, message in zip(range(30), held) for event in message.events]
        self.compare(events, 1, 30_000)
        resumed = self.trace_count("IMA resuming paused flow id")
        held.cancel()
        node.wait_for(lambda: self.trace_count("IMA resuming paused flow id") > resumed, "the end of the paused stream")
        self.compare(taken(other.stream()), 1, SHORT)

    def test_a_slow_client_costs_few_pauses(self):
        self.begin(SHORT, warm=True)
        before = self.trace_count("Slowing down cache responses")
        stream, events = self.client.stream(), []
        for _ in range(8):
            events += next(stream).events
            time.sleep(1)
        events += taken(stream)
        self.compare(events, 1, SHORT)
        pauses = self.trace_count("Slowing down cache responses") - before
        self.assertTrue(0 < pauses < SHORT / 1000 / 5, pauses)

    def chunk_of(self, event):
        first = 1 if event == 0 else (event - 1) // 1000 * 1000 + 1
        return first, first + 999

    def trace_count(self, part):
        return sum(part in line for line in node.trace())

    def traced(self, part):
        return self.trace_count(part) > 0

    def test_a_list_that_cannot_be_read_gives_no_record(self):
        self.begin(2500)
        good = self.list.first(2500)
        end = self.list.ends[2000]
        for what, data in {"missing": None, "cut": good[:-3], "a name of 300 bytes":
                           good[:end] + good[end:end + 24] + struct.pack("<I", 300) + bytes(300)}.items():
            with self.subTest(what):
                node.IMA_LOG.write_bytes(data or b"")
                if data is None:
                    node.IMA_LOG.unlink()
                self.assertEqual(list(self.client.at_once(2000)), [])
                messages = list(self.client.stream(2000))
                self.assertEqual(messages[-1], api.NodeIMAData())
                self.assertEqual(node.attestctl("ima-log").returncode, 1)
        self.assertIn("Error reading", node.agent_words())

    def test_attestctl_keeps_no_more_of_a_stream_than_a_message_and_ends_cleanly_when_interrupted(self):
        self.begin()
        peaks = {}
        for count in (10_000, LENGTH):
            with open("/tmp/shown", "wb") as shown:
                child = subprocess.Popen(["attestctl", "ima-log", "--stream", "--count", str(count)], stdout=shown)
                _, status, usage = os.wait4(child.pid, 0)
            child.returncode = os.waitstatus_to_exitcode(status)
            self.assertEqual(child.returncode, 0)
            peaks[count] = usage.ru_maxrss
        if not node.INSTRUMENTED:
            self.assertLess(peaks[LENGTH], peaks[10_000] + (16 << 10))
        child = subprocess.Popen(["attestctl", "ima-log", "--stream"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        child.stdout.read(100_000)
        child.send_signal(signal.SIGINT)
        shown = []
        reader = threading.Thread(target=lambda: shown.append(child.stdout.read()))
        reader.start()
        said = child.stderr.read().decode()
        reader.join()
        child.stdout.close()
        child.stderr.close()
        self.assertEqual(child.wait(), 130)
        self.assertIn("interrupted after", said)
        self.assertTrue(shown[0].endswith(b"\n"), "a line is cut")


if __name__ == "__main__":
    unittest.main()
