"""The agent is killed while it streams and caches, again and again within one boot, and a verifier that streams
throughout sees every event of the list as it is: none wrong, none missing, none again but those that the start event's
chunk brings. In the end the table of repeats and the cache are whole.

By turns the kill comes at a random moment and at a swept one: before the n-th of the agent's calls of a name to the
system. KILLS in the environment is how many (default 20), SEED what the chances come from.
"""
import array
import collections
import mmap
import os
import pathlib
import random
import re
import struct
import subprocess
import threading
import time
import unittest

import grpc

import measured_list
import node
from failure import Failure
from node import agent_control

KILLS = int(os.environ.get("KILLS", "20"))
CHUNK = 1000
FIRST_LENGTH = 3_500
MOST = 1_700_000  # events: the table of repeats has room for them
GROWTH = (50, 600)  # events that the list gains before a stream
SWEPT_GROWTH = CHUNK + 10  # before one whose calls are counted: a chunk becomes whole
CALLS_OF_A_NAME = 12  # of those that the sweep tries
LAST_CALL = 65_535  # of a name, that strace can be told
NOTED_AFRESH = 200  # kills after which the calls are looked at again: the cache has grown

TABLE = pathlib.Path("/dev/shm/ima_unique_measurements")
META = pathlib.Path("/dev/shm/ima_cache_meta")
HEADER, ENTRY = struct.Struct("<QIiQQQ"), struct.Struct("<I512s4xQQQQ")
CHAIN_END = 2**64 - 1


class Listed:
    """What the agent must say of each event: a fingerprint by number; and the list as it has grown so far."""

    def __init__(self, length):
        self.length, self.ends, self.prints, self.first_with = 0, array.array("Q", [0]), array.array("q", [0]), {}
        pathlib.Path("/tmp/list").write_bytes(measured_list.make(length, 11))
        with open("/tmp/list", "rb") as file:
            self.bytes = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)
        for number, (end, template_hash, name, digest) in enumerate(measured_list.records(self.bytes), 1):
            first = self.first_with.setdefault(self.key(name, digest), number)
            self.ends.append(end)
            self.prints.append(hash((template_hash, name, digest, int(first != number))))

    def key(self, name, digest):
        return (name[:256] + digest)[:511]

    def grow(self, count):
        count = min(count, len(self.ends) - 1 - self.length)
        with open(node.IMA_LOG, "ab") as file:
            file.write(self.bytes[self.ends[self.length]:self.ends[self.length + count]])
        self.length += count


def cached_events():
    """How many events the agent says the cache has."""
    return struct.unpack_from("<Q", META.read_bytes(), 529)[0]


def first_of_answer(start, cached):
    """The event that an answer begins with."""
    if start > cached:
        return max(cached, 0 if cached else start) + 1
    return max(start - 1, 0) // CHUNK * CHUNK + 1


class Killed(unittest.TestCase):
    def setUp(self):
        random.seed(int(os.environ.get("SEED", "1")))
        self.listed = Listed(min(FIRST_LENGTH + KILLS * 1100, MOST))
        node.IMA_LOG.parent.mkdir(parents=True, exist_ok=True)
        self.listed.grow(FIRST_LENGTH)
        self.last = 0  # event that the verifier has
        self.most_cached = 0
        self.pace = 0.05  # seconds that a stream takes
        self.points, self.next_point = [], 0
        self.count = collections.Counter()

    def test_a_verifier_sees_every_event_whenever_the_agent_is_killed(self):
        node.agent("start", "ATTEST_TRACE=none")
        self.stream_undisturbed()
        while self.count["kills"] < KILLS:
            swept = self.count["kills"] % 2 == 1
            if swept and self.next_point % NOTED_AFRESH == 0:
                self.note_points()
            self.live_and_die(self.take_point() if swept else None)
        node.agent("start", "ATTEST_TRACE=none")
        self.listed.grow(1)
        self.last = 0
        self.stream_undisturbed()
        verified = subprocess.run(["attest-cache", "verify"], capture_output=True, text=True, check=False)
        self.assertEqual(verified.returncode, 0, verified.stdout + verified.stderr)
        self.check_table()
        node.trace()  # is still one that can be read
        print(f"{dict(self.count)}; {self.listed.length} events, {self.most_cached} cached; {verified.stdout.strip()}",
              flush=True)

    def note_points(self):
        """The calls that the agent's own thread makes from its cache's start to the end of a stream, some of each
        name."""
        calls = "/tmp/calls"
        node.restart("ATTEST_TRACE=none", "--", "strace", "-D", "-f", "-qq", "-o", calls)
        self.listed.grow(SWEPT_GROWTH)
        self.stream_undisturbed()
        pid = node.agent_pid()
        node.agent("kill")
        self.count["kills"] += 1
        numbers, seen, begun = collections.Counter(), collections.defaultdict(list), False
        for line in pathlib.Path(calls).read_text(errors="replace").splitlines():
            call = re.match(rf"{pid} +(\w+)\(", line)
            if call:
                numbers[call[1]] += 1
                begun = begun or META.name in line
                if begun and numbers[call[1]] <= LAST_CALL:
                    seen[call[1]].append(numbers[call[1]])
        self.points = []
        for name, ordinals in seen.items():
            step = max(1, len(ordinals) // CALLS_OF_A_NAME)
            self.points += [(name, ordinal) for ordinal in {*ordinals[::step], ordinals[-1]}]
        random.shuffle(self.points)

    def take_point(self):
        point = self.points[self.next_point % len(self.points)]
        self.next_point += 1
        return point

    def live_and_die(self, point):
        """One life of the agent, streaming. It is killed before the call `point` of its main thread, or some time."""
        self.listed.grow(SWEPT_GROWTH if point else random.randint(*GROWTH))
        settings = ["ATTEST_TRACE=none"] if self.count["kills"] % 8 > 1 else []
        if point:
            name, number = point
            settings += ["--", "strace", "-D", "-f", "-qq", "-o", "/dev/null", "-e", f"trace={name}",
                         "-e", f"inject={name}:signal=KILL:when={number}"]
        node.agent("restart", *settings, check=False)
        self.count["swept" if point else "random"] += 1
        if agent_control.status().startswith("running"):
            self.stream_to_the_end(by_hand=not point)
        elif not point:
            raise AssertionError(f"the agent does not start: {node.agent('status')}\n{node.agent_words()[-2000:]}")
        else:
            self.count["killed in its start"] += 1
        node.wait_for(lambda: not agent_control.is_running(), "the agent's end")
        self.assertEqual(agent_control.status(), "signal 9",
                         f"after {dict(self.count)}, point {point}: {node.agent_words()[-2000:]}")
        self.count["kills"] += 1

    def stream_to_the_end(self, by_hand):
        client = measured_list.Client()
        if by_hand:
            killer = threading.Timer(random.uniform(0, 1.5 * self.pace), kill)
            killer.start()
        began = time.monotonic()
        while self.stream(client):
            if by_hand:
                self.pace += (time.monotonic() - began - self.pace) / 10
            elif self.count["streams"] % 3 == 0:
                self.count["swept calls that did not come"] += 1
                kill()
            self.listed.grow(random.randint(*GROWTH))
            began = time.monotonic()
        self.count["killed in a stream"] += 1
        if by_hand:
            killer.join()
        client.channel.close()

    def stream_undisturbed(self):
        self.assertTrue(self.stream(measured_list.Client()), f"cut off: {node.agent_words()[-2000:]}")

    def stream(self, client):
        """Streams from the verifier's last event to the list's end: True; or False, the agent has gone."""
        length, cached = self.listed.length, cached_events()
        self.count["streams"] += 1
        self.count["lost from the cache"] += max(0, self.most_cached - cached)
        self.most_cached = cached
        number = first_of_answer(self.last, cached) - 1
        ended = False
        try:
            for message in client.stream(self.last):
                for event in message.events:
                    number += 1
                    content = (event.template_hash, event.event_name, event.digest, event.duplicate)
                    if event.event_num != number or hash(content) != self.listed.prints[number]:
                        self.fail(f"for event {number}, {self.last} had, {cached} cached: {event}")
                self.last = max(self.last, number)
            ended = True
        except grpc.RpcError as cut:
            self.assertEqual(cut.code(), grpc.StatusCode.UNAVAILABLE)
        if ended:
            self.assertEqual(number, length, "where the stream ended")
        self.most_cached = max(self.most_cached, cached_events())
        return ended

    def check_table(self):
        """Every pair of a name and a digest is there once, in a chain that leads to it, with its first event."""
        with open(TABLE, "rb") as file:
            size, _, _, entries, collisions, _ = HEADER.unpack(os.pread(file.fileno(), HEADER.size, 0))
            home = dict(entries_in_use(file, HEADER.size, size))
            overflow = dict(entries_in_use(file, HEADER.size + size * ENTRY.size, size))
        self.assertEqual((len(home) + len(overflow), sorted(overflow)), (entries, list(range(collisions))))
        found = {}
        for index, entry in home.items():
            while True:
                key, key_hash, following, value = entry
                self.assertEqual(key_hash % size, index)
                self.assertNotIn(key, found)
                found[key] = value
                if following == CHAIN_END:
                    break
                entry = overflow.pop(following)
        self.assertEqual(overflow, {}, "entries that no chain leads to")
        expected = {key: first for key, first in self.listed.first_with.items() if first <= self.listed.length}
        self.assertTrue(found == expected, "the table's entries are not the list's")
        self.count["pairs"] = len(found)


def entries_in_use(file, area, count):
    """(index, (key, hash, next, value)) of the entries of an area in use. Holes are read over: they stay holes."""
    piece = 1024
    for index in range(0, count, piece):
        data = os.pread(file.fileno(), min(piece, count - index) * ENTRY.size, area + index * ENTRY.size)
        if data.count(0) == len(data):
            continue
        for at, (in_use, key, length, key_hash, following, value) in enumerate(ENTRY.iter_unpack(data)):
            if in_use:
                yield index + at, (key[:length], key_hash, following, value)


def kill():
    try:
        agent_control.kill()
    except Failure:
        pass  # it has just ended by itself


if __name__ == "__main__":
    unittest.main()
