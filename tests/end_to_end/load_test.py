"""A small load of every kind; bench/load does the whole."""
import unittest

import load
import node

QUEUE = 8 << 20  # that a client may have, and a message more
STALLED = 12


class Load(unittest.TestCase):
    def test_connections_that_want_nothing_cost_those_that_ask_nothing(self):
        load.begin(50_000)
        got = load.load(clients=8, idle=280, half_open=20, stalled=STALLED, seconds=3, pause=0.3)
        self.assertGreater(got["ended"], 300 - 256)  # refused, beside 20 that were there
        self.assertLessEqual(got["descriptors under load"], got["idle descriptors"] + 3 * 256)
        self.assertEqual(got["descriptors after"], got["idle descriptors"])
        if not node.INSTRUMENTED:
            self.assertLess(got["peak"], got["idle"] + (64 << 20) + STALLED * QUEUE)
            self.assertLess(got["after"], got["idle"] + STALLED * QUEUE // 2, "memory of queues that are gone")
        for operation, times in got["loaded"].items():
            self.assertGreaterEqual(len(times), 8, operation)  # each has raised no error and brought evidence


if __name__ == "__main__":
    unittest.main()
