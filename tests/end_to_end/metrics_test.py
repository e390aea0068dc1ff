"""What the agent tells who watches it: the numbers of what it was asked, in a format that a collector takes."""
import collections
import concurrent.futures
import http.client
import pathlib
import re
import socket
import tempfile
import unittest
import urllib.request

import node

PORT = 9551
SERIES = re.compile(r'([a-z_]+)(?:\{((?:[a-z_]+="(?:[^"\\\n]|\\[\\"n])*",?)+)\})? (-?[0-9.e+-]+|\+Inf)$')


def parse(text):
    """The series by name and labels; fails on what the text format 0.0.4 does not allow."""
    kinds, values = {}, {}
    assert text.endswith("\n"), "the last line is cut"
    for line in text.splitlines():
        if line.startswith("# HELP "):
            assert line.split(" ", 3)[2] not in kinds, f"a second group: {line}"
        elif line.startswith("# TYPE "):
            _, _, name, kind = line.split(" ")
            assert kind in ("counter", "gauge", "histogram") and name not in kinds, line
            assert name.endswith("_total") == (kind == "counter"), line
            kinds[name] = kind
        else:
            name, labels, value = SERIES.match(line).groups()
            family = re.sub("_(bucket|sum|count)$", "", name)
            assert kinds.get(name) or kinds[family] == "histogram", f"no type: {line}"
            key = (name, tuple(sorted(re.findall(r'([a-z_]+)="([^"]*)"', labels or ""))))
            assert key not in values, f"twice: {line}"
            values[key] = float(value)
    for name in (name for name, kind in kinds.items() if kind == "histogram"):
        buckets = collections.defaultdict(list)
        for (series, labels), value in values.items():
            if series == f"{name}_bucket":
                bound = float(dict(labels)["le"])
                buckets[tuple(label for label in labels if label[0] != "le")].append((bound, value))
        for labels, steps in buckets.items():
            counts = [count for _, count in sorted(steps)]
            assert counts == sorted(counts) and counts[-1] == values[f"{name}_count", labels], (name, labels)
    return values


def scrape(host="127.0.0.1"):
    with urllib.request.urlopen(f"http://{host}:{PORT}/metrics", timeout=60) as answer:
        assert answer.headers["Content-Type"].startswith("text/plain; version=0.0.4")
        return parse(answer.read().decode())


def count(values, name, **labels):
    return values.get((name, tuple(sorted(labels.items()))), 0)


class Metrics(unittest.TestCase):
    def start(self, *settings):
        self.said = len(node.agent_words())
        node.restart(*settings)
        self.addCleanup(node.ensure_stopped)

    def words(self):
        return node.agent_words()[self.said:]

    def ask_unix(self, path):
        with socket.socket(socket.AF_UNIX) as asks:
            asks.settimeout(60)
            asks.connect(str(path))
            asks.sendall(b"GET /metrics HTTP/1.1\r\nHost: node\r\n\r\n")
            return b"".join(iter(lambda: asks.recv(65536), b"")).decode().partition("\r\n\r\n")[2]

    def test_numbers_are_those_of_what_was_asked_also_while_it_is_asked(self):
        self.start(f"ATTEST_METRICS={PORT}", "ATTEST_BMC_ADDRESS=none")
        commands = [["boot-log"], ["ima-log", "--stream", "--json"], ["ima-log"], ["pcrs", "--pcr", "0"]]
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            asked = [pool.submit(node.attestctl, *command) for command in commands * 3]
            during = []
            while not all(one.done() for one in asked):
                during.append(sum(value for (name, _), value in scrape().items() if name == "attest_requests_total"))
        operations = ("GetPlatformBootIntegrityEventLogs", "StreamPlatformImaEventLogs", "GetPlatformImaEventLogs",
                      "AttestPcrs")

        def all_are_counted():  # gRPC may tell the agent that a call is over after it told the client
            values = scrape()
            return all(count(values, "attest_requests_total", operation=one, outcome="ok") == 3 for one in operations)

        node.wait_for(all_are_counted, "calls")
        values = scrape()
        for operation in operations:
            with self.subTest(operation):
                self.assertEqual(count(values, "attest_requests_total", operation=operation, outcome="ok"), 3)
                self.assertEqual(count(values, "attest_request_seconds_count", operation=operation), 3)
                self.assertEqual(count(values, "attest_source_failures_total", operation=operation, source="bmc",
                                       code="6"), 3)
        self.assertEqual(during, sorted(during))
        events = count(values, "attest_ima_list_events")
        self.assertEqual(events, len(node.ask("ima-log")["node_data"][0]["events"]))
        self.assertEqual(count(values, "attest_ima_cache_events"), events // 1000 * 1000)
        self.assertGreaterEqual(count(values, "attest_ima_cache_bytes"), 1 << 20)
        self.assertGreater(count(values, "attest_ima_table_entries"), 0)
        self.assertLessEqual(count(values, "attest_ima_table_entries"), events)
        self.assertEqual(count(values, "attest_queue_bytes"), 0)

    def test_a_trust_anchor_that_fails_is_seen(self):
        self.start(f"ATTEST_METRICS={PORT}", "ATTEST_TPM=device:/nowhere")
        self.assertEqual(node.attestctl("pcrs", "--pcr", "0").returncode, 1)
        values = scrape()
        self.assertEqual(count(values, "attest_answers_without_evidence_total", operation="AttestPcrs"), 1)
        self.assertEqual(count(values, "attest_source_failures_total", operation="AttestPcrs", source="node", code="9"), 1)
        self.assertGreaterEqual(count(values, "attest_tpm_errors_total", reason="system error"), 1)
        self.assertEqual(count(values, "attest_trust_anchor_ready"), 0)

    def test_a_socket_replaces_its_forerunner_but_no_file(self):
        directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        path = directory / "metrics.sock"
        for _ in range(2):
            self.start(f"ATTEST_METRICS=unix:{path}")
            self.assertEqual(count(parse(self.ask_unix(path)), "attest_connections"), 0)
            node.agent("kill")
        path.unlink()
        path.write_text("somebody's")
        self.start(f"ATTEST_METRICS=unix:{path}")
        self.assertEqual(path.read_text(), "somebody's")
        self.assertIn("Address already in use; there are no metrics now", self.words())

    def test_a_setting_that_cannot_be_meant_costs_the_metrics_only(self):
        for bad in ("no", "0", "65536", "9551x", "192.0.2.1:9551", "0.0.0.0:9551", "127.0.0.1:", "unix:",
                    f"unix:/{'x' * 200}"):
            with self.subTest(bad):
                self.start(f"ATTEST_METRICS={bad}")
                self.assertIn(f'ATTEST_METRICS is "{bad}": ', self.words())
                self.assertEqual(node.attestctl("boot-log").returncode, 0)

    def test_bad_requests_and_silent_clients_hold_up_nobody(self):
        self.start(f"ATTEST_METRICS=127.0.0.2:{PORT}")
        for method, path, status in (("POST", "/metrics", 405), ("GET", "/", 404), ("GET", "/metricsx", 404)):
            with self.subTest(path):
                connection = http.client.HTTPConnection("127.0.0.2", PORT, timeout=60)
                self.addCleanup(connection.close)
                connection.request(method, path)
                self.assertEqual(connection.getresponse().status, status)
        long = http.client.HTTPConnection("127.0.0.2", PORT, timeout=60)
        self.addCleanup(long.close)
        with self.assertRaises(OSError):  # without the bound it is answered
            long.request("GET", "/metrics", headers={"X": "x" * 9000})
            long.getresponse()
        silent = [self.enterContext(socket.create_connection(("127.0.0.2", PORT))) for _ in range(20)]
        self.assertEqual(node.attestctl("boot-log").returncode, 0)
        for one in silent:
            one.settimeout(60)
            self.assertEqual(one.recv(1), b"")
        scrape("127.0.0.2")


if __name__ == "__main__":
    unittest.main()
