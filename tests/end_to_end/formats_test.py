"""Logs as a verifier gets them and as attestctl --format writes them back, held against the files that they come from
and independent readers; and boot logs that are bad."""
import hashlib
import json
import os
import pathlib
import subprocess
import tempfile
import unittest

import node
import yaml

FIXTURES = node.SOURCE.parent / "shared" / "fixtures"  # beside some checkouts
BANKS = {"sha1": 20, "sha256": 32, "sha384": 48, "sha512": 64}


def logs(kind):
    found = sorted(node.DATA.glob(f"*-{kind}.bin")) + sorted((FIXTURES / kind).glob("*.bin"))
    if not FIXTURES.exists():
        print(f"no {FIXTURES}: recorded logs only")
    return found


def written(*arguments):
    done = subprocess.run(["attestctl", *arguments], capture_output=True, timeout=60, check=False)
    return done.returncode, done.stdout, done.stderr.decode()


def replay(records, bank):
    """PCR values by index, from the digests of a canonical event log."""
    values = {}
    for record in records:
        (digest,) = [each["digest"] for each in record["digests"] if each["hashAlg"] == bank]
        before = values.get(record["pcr"], bytes(BANKS[bank]))
        values[record["pcr"]] = hashlib.new(bank, before + bytes.fromhex(digest)).digest()
    return {str(pcr): value.hex() for pcr, value in values.items()}


def judged_boot_log(path):
    """(PCR, type, digests, size) of each event, by tpm2_eventlog."""
    text = subprocess.run(["tpm2_eventlog", path], capture_output=True, check=True).stdout.decode(errors="replace")
    text = "".join(c if c.isprintable() or c == "\n" else "?" for c in text)
    if "EventNum" not in text:  # of a log of the older layout it does not begin the events as the list that they are
        text = text.replace("\n  PCRIndex:", "\n- PCRIndex:")
    for event in yaml.safe_load(text)["events"]:
        listed = event.get("Digests") or [{"AlgorithmId": "sha1", "Digest": event.get("Digest", 40 * "0")}]
        yield (event["PCRIndex"], event["EventType"], {each["AlgorithmId"]: each["Digest"] for each in listed},
               event["EventSize"])


class BootLogs(unittest.TestCase):
    def install(self, log):
        node.BOOT_LOG.parent.mkdir(parents=True, exist_ok=True)
        node.BOOT_LOG.unlink(missing_ok=True)
        node.BOOT_LOG.write_bytes(log)

    def test_raw_is_the_file_and_cel_and_the_events_are_what_another_reader_finds(self):
        for path in logs("boot"):
            with self.subTest(path.name):
                self.install(path.read_bytes())
                self.assertEqual(written("boot-log", "--format", "raw"), (0, path.read_bytes(), ""))
                status, text, words = written("boot-log", "--format", "cel-json")
                self.assertEqual((status, words), (0, ""))
                records, judged = json.loads(text), list(judged_boot_log(path))
                self.assertEqual([record["recnum"] for record in records], list(range(len(records))))
                self.assertEqual([(record["pcr"], record["content"]["event_type"],
                                   {each["hashAlg"]: each["digest"] for each in record["digests"]},
                                   len(record["content"]["event_data"]) // 2) for record in records], judged)
                events = node.ask("boot-log")["node_data"][0]["events"]
                self.assertEqual([(event["event_num"], event["event_size"]) for event in events],
                                 [(number, size) for number, (_, _, _, size) in enumerate(judged, 1)])

    def test_bad_logs_are_answered_without_evidence(self):
        whole = (node.DATA / "recorded-a-boot.bin").read_bytes()
        bad = {
            "cut": lambda: self.install(whole[:-1]),
            "garbage": lambda: self.install(os.urandom(5000)),
            "unreadable": lambda: (self.install(whole), node.BOOT_LOG.chmod(0)),
            "1 GiB": lambda: (self.install(b""), os.truncate(node.BOOT_LOG, 1 << 30)),
            "missing": node.BOOT_LOG.unlink,
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


class ImaLists(unittest.TestCase):
    def install(self, data):
        node.forget_boot()
        node.IMA_LOG.write_bytes(data)
        node.agent("start", "ATTEST_TRACE=none")

    def judge(self, list_file, pcrs):
        """evmctl replays the list to the PCRs of its boot."""
        with tempfile.TemporaryDirectory() as folder:
            files = []
            for bank, values in pcrs.items():
                path = pathlib.Path(folder) / bank
                path.write_text("".join(f"PCR-{int(pcr):02}: {value.upper()}\n" for pcr, value in values.items()))
                files += ["--pcrs", f"{bank},{path}"]
            return subprocess.run(["evmctl", "ima_measurement", "--ignore-violations", *files, list_file],
                                  capture_output=True, check=False)

    def test_raw_is_the_file_and_cel_replays_to_the_pcrs_of_the_boot(self):
        for path in logs("ima"):
            with self.subTest(path.name):
                source = path.read_bytes()
                self.install(source)
                if path.name == "tpm2tss-ima-sha1.bin":
                    source = source.removesuffix(b"\n")  # which is no record
                for how in ([], ["--stream"]):
                    self.assertEqual(written("ima-log", "--format", "raw", *how), (0, source, ""))
                    status, text, words = written("ima-log", "--format", "cel-json", *how)
                    self.assertEqual((status, words), (0, ""))
                records = json.loads(text)
                self.assertEqual([record["recnum"] for record in records], list(range(len(records))))
                for record in records:
                    self.assertIn(bytes.fromhex(record["content"]["template_data"])[:20 if record["content"][
                        "template_name"] == "ima" else None], source)
                known = node.DATA / path.name.replace("-ima.bin", "-pcrs.json")
                if known.exists() and known != path:
                    pcrs = json.loads(known.read_text())
                    for bank, values in pcrs.items():
                        self.assertEqual(replay(records, bank), {"10": values["10"]}, bank)
                    with tempfile.NamedTemporaryFile() as file:
                        file.write(written("ima-log", "--format", "raw")[1])
                        file.flush()
                        judged = self.judge(file.name, pcrs)
                        self.assertEqual(judged.returncode, 0, judged.stdout + judged.stderr)
                        other = {bank: values | {"10": values["9"]} for bank, values in pcrs.items()}
                        self.assertNotEqual(self.judge(file.name, other).returncode, 0)

    def test_record_with_a_field_that_the_contract_has_not_is_not_written(self):
        name = b"d-ng|n-ng|buf"
        digest, path, buffer = b"sha256:\0" + bytes(32), b"/x\0", b"key"
        data = b"".join(len(field).to_bytes(4, "little") + field for field in (digest, path, buffer))
        record = b"".join(((10).to_bytes(4, "little"), hashlib.sha1(data).digest(), len(name).to_bytes(4, "little"),
                           name, len(data).to_bytes(4, "little"), data))
        self.install((node.DATA / "recorded-b-ima.bin").read_bytes() + record)
        for form in ("raw", "cel-json"):
            self.assertEqual(written("ima-log", "--format", form), (1, b"", "attestctl: event 298 of the IMA list "
                             "cannot be written: its fields are not all that template d-ng|n-ng|buf has\n"))


if __name__ == "__main__":
    unittest.main()
