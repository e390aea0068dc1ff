"""The PCRs of a node that was started on recorded logs, against the boot that they come from and tpm2_eventlog."""
import hashlib
import json
import os
import subprocess
import tempfile
import unittest

import yaml

import node

BANKS = {"sha1": 20, "sha256": 32}
RECORDED = (0, 1, 2, 3, 4, 5, 6, 7, 9, 10)


def tpm_values(bank, size):
    """All 24 PCRs as the TPM itself gives them; it serves one connection at a time, so the agent must be down."""
    with tempfile.NamedTemporaryFile() as values:
        subprocess.run(["tpm2_pcrread", "-T", os.environ["NODE_TPM"], "-o", values.name, f"{bank}:all"],
                       check=True, capture_output=True)
        data = values.read()
    return [data[at:at + size].hex() for at in range(0, len(data), size)]


def pcr_0_from_locality_3(bank, size, events):
    """tpm2_eventlog 5.4 begins with zeros whatever the log says, and extends the event that says it."""
    value = bytes(size - 1) + b"\3"
    for event in events:
        if event["PCRIndex"] == 0 and event["EventType"] != "EV_NO_ACTION":
            (digest,) = [each["Digest"] for each in event["Digests"] if each["AlgorithmId"] == bank]
            value = hashlib.new(bank, value + bytes.fromhex(digest)).digest()
    return int.from_bytes(value, "big")


class SeededTpm(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        (record,) = node.ask("pcrs", "--pcr", ",".join(map(str, range(24))))["node_data"]
        cls.answered = [pcr["value"] for pcr in record["pcrs"]]
        node.ensure_stopped()
        cls.values = {bank: tpm_values(bank, size) for bank, size in BANKS.items()}

    def test_the_agent_answers_what_the_tpm_holds(self):
        self.assertEqual(self.answered, self.values["sha256"])

    def test_boot_log_is_extended_as_tpm2_eventlog_replays_it(self):
        said = subprocess.run(["tpm2_eventlog", str(node.BOOT_LOG)], check=True, capture_output=True, text=True).stdout
        listing = yaml.safe_load(said)
        for bank, size in BANKS.items():
            replayed = listing["pcrs"][bank]
            if b"StartupLocality" in node.BOOT_LOG.read_bytes():
                replayed[0] = pcr_0_from_locality_3(bank, size, listing["events"])
            for pcr, value in replayed.items():
                self.assertEqual(self.values[bank][pcr], f"{value:0{2 * size}x}", (bank, pcr))

    def test_values_are_those_of_the_recorded_boot(self):
        # The recorded machines have booted alike; their IMA lists tell them apart.
        boots = [json.loads(log.with_name(log.name.replace("-boot.bin", "-pcrs.json")).read_text())
                 for log in node.DATA.glob("recorded-?-boot.bin") if log.read_bytes() == node.BOOT_LOG.read_bytes()]
        if not boots:
            self.skipTest("a log that no machine has booted from")
        for bank in BANKS:
            for pcr in RECORDED:
                self.assertIn(self.values[bank][pcr], [boot[bank][str(pcr)] for boot in boots], (bank, pcr))


if __name__ == "__main__":
    unittest.main()
