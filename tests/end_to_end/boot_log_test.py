"""The boot log as a verifier gets it, held against an independent reader of the same file; and logs that are bad."""
import os
import shutil
import subprocess
import unittest

import node
import yaml

ALGORITHMS = {"sha1": 0, "sha256": 1, "sha384": 2, "sha512": 3}


def independent_listing(path):
    """What tpm2_eventlog reads: a (PCR, type, digests, data size) an event."""
    text = subprocess.run(["tpm2_eventlog", path], capture_output=True, check=True).stdout.decode(errors="replace")
    printable = "".join(c if c.isprintable() or c in "\n" else "?" for c in text)
    for event in yaml.safe_load(printable)["events"]:
        if "DigestCount" in event:
            digests = [(ALGORITHMS[digest["AlgorithmId"]], digest["Digest"]) for digest in event["Digests"]]
        else:  # the first record, of the older layout
            digests = [(0, event["Digest"])] if "Digest" in event else [(0, 40 * "0")]
        yield event["PCRIndex"], digests, event["EventSize"]


class BootLog(unittest.TestCase):
    def install(self, source):
        node.BOOT_LOG.parent.mkdir(parents=True, exist_ok=True)
        if node.BOOT_LOG.exists():
            node.BOOT_LOG.unlink()
        if isinstance(source, bytes):
            node.BOOT_LOG.write_bytes(source)
        else:
            shutil.copy(source, node.BOOT_LOG)

    def test_recorded_boots_come_back_whole(self):
        for name in ("recorded-a", "recorded-b"):
            path = node.DATA / f"{name}-boot.bin"
            self.install(path)
            events = node.ask("boot-log")["node_data"][0]["events"]
            got = [(event["pcr_index"], [(d["hash_alg"], d["digest"]) for d in event["digests"]], event["event_size"])
                   for event in events]
            self.assertEqual(got, list(independent_listing(path)))
            self.assertEqual([event["event_num"] for event in events], list(range(1, len(events) + 1)))
            data = b"".join(bytes.fromhex(event.get("event_data", "")) for event in events)
            self.assertLess(len(data), path.stat().st_size)
            self.assertEqual(sum(event["event_size"] for event in events), len(data))

    def test_table_for_people(self):
        self.install(node.DATA / "recorded-a-boot.bin")
        table = node.attestctl("boot-log")
        self.assertEqual(table.returncode, 0, table.stderr)
        for text in ("EV_NO_ACTION", "EV_EFI_VARIABLE_DRIVER_CONFIG", "SecureBoot"):
            self.assertIn(text, table.stdout)

    def test_bad_logs_are_answered_without_evidence(self):
        whole = (node.DATA / "recorded-a-boot.bin").read_bytes()
        bad = {
            "cut": lambda: self.install(whole[:-1]),
            "garbage": lambda: self.install(os.urandom(5000)),
            "unreadable": lambda: (self.install(whole), node.BOOT_LOG.chmod(0)),
            "1 GiB": lambda: (self.install(b""), os.truncate(node.BOOT_LOG, 1 << 30)),
            "missing": lambda: node.BOOT_LOG.unlink(),
        }
        for what, make in bad.items():
            with self.subTest(what):
                make()
                lines_before = len(node.trace())
                answer = node.attestctl("--json", "boot-log")
                self.assertEqual(answer.returncode, 1, answer.stderr)
                self.assertNotIn("node_data", answer.stdout)
                self.assertEqual(len(answer.stderr.splitlines()), 1)
                self.assertGreater(len(node.trace()), lines_before)
        self.install(whole)
        self.assertEqual(node.attestctl("boot-log").returncode, 0)

    def test_empty_log_gives_a_record_without_events(self):
        self.install(b"")
        record = node.ask("boot-log")["node_data"][0]
        self.assertEqual(record["node_name"], os.uname().nodename)
        self.assertNotIn("events", record)


if __name__ == "__main__":
    unittest.main()
