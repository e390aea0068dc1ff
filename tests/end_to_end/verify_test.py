"""attestctl's verdict on a node with a TPM: good as it comes, and not after somebody has meddled."""
import base64
import json
import os
import pathlib
import subprocess
import tempfile
import unittest

import node

COMMANDS = (["certificate"], ["certificate", "--name", "Kestrin VOXA"], ["pcrs", "--pcr", "10,0,7,0"],
            ["hw-integrity"], ["hw-integrity", "--hash-algo", "0"])


def verdict(*arguments):
    """The exit status and the outcome of each check."""
    done = node.attestctl("--json", *arguments)
    said = json.loads(done.stdout.splitlines()[-1])
    return done.returncode, {row["name"]: row["outcome"] for row in said["checks"]}


# A node without a list has none to verify, and that is no pass.
EXPECTED = set() if node.IMA_LOG.exists() else {"IMA list", "IMA list numbers"}


def failing(checks):
    return {name for name, outcome in checks.items() if outcome != "pass"}


class Verify(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        (record,) = node.ask("certificate")["node_data"]
        root, authority, _ = [bytes.fromhex(entry["data"]) for entry in record["certs"]]
        self.roots = {"root.der": root, "ca.der": authority, "root.pem": b"-----BEGIN CERTIFICATE-----\n" +
                      base64.encodebytes(root) + b"-----END CERTIFICATE-----\n"}
        for name, data in self.roots.items():
            self.roots[name] = str(pathlib.Path(directory.name) / name)
            pathlib.Path(self.roots[name]).write_bytes(data)

    def test_good_node_is_verified_against_its_root_alone(self):
        for command in COMMANDS:
            with self.subTest(command):
                for root in ("root.der", "root.pem"):
                    status, checks = verdict(*command, "--root", self.roots[root])
                    self.assertEqual((status, failing(checks)), (0, set()))
                status, checks = verdict(*command, "--root", self.roots["ca.der"])
                self.assertEqual(status, 1)
                self.assertTrue(failing(checks) and all(name.endswith(" root") for name in failing(checks)))
                self.assertEqual(node.attestctl(*command).stdout.splitlines()[-1],
                                 "VERIFIED, but against roots that are not pinned (see --root)")

    def test_nonce_of_the_user_and_none(self):
        self.assertEqual(verdict("pcrs", "--pcr", "0", "--nonce", "00")[0], 0)
        status, checks = verdict("pcrs", "--pcr", "0", "--nonce", "")
        self.assertEqual((status, failing(checks)), (1, {"quote nonce"}))

    def test_saved_evidence_gets_the_verdict_that_it_had(self):
        with tempfile.TemporaryDirectory() as folder:
            for where in ("--save", "--from"):
                status, checks = verdict("attest", "--root", self.roots["root.pem"], where, f"{folder}/evidence")
                self.assertEqual((status, failing(checks)), (1 if EXPECTED else 0, EXPECTED), where)

    def test_whole_node_passes_until_somebody_extends_a_pcr(self):  # the last one: the TPM keeps it
        self.assertEqual(failing(verdict("attest", "--root", self.roots["root.pem"])[1]), EXPECTED)
        for pcr, fails in (("11", set()), ("9", {"boot log replay"}), ("15", {"boot log replay", "hardware binding"})):
            node.ensure_stopped()
            subprocess.run(["tpm2_pcrextend", "-T", os.environ["NODE_TPM"], f"{pcr}:sha256={64 * 'a'}"], check=True)
            node.restart()
            _, checks = verdict("attest", "--root", self.roots["root.pem"])
            self.assertEqual(failing(checks) - EXPECTED, fails, pcr)


if __name__ == "__main__":
    unittest.main()
