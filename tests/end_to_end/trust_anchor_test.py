"""Certificates, quoted values and hardware integrity of a node with a TPM, judged by openssl and tpm2-tools."""
import hashlib
import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import node

RECORDED = (*range(8), 9, 10)  # the PCRs that the logs tell
RECORDED_PCRS = json.loads((node.DATA / "recorded-a-pcrs.json").read_text())
NONCE = "00112233445566778899aabbccddeeff"


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: {done.stdout}{done.stderr}")
    return done.stdout


class TrustAnchor(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)

    def file(self, name, data):
        path = self.directory / name
        path.write_bytes(data)
        return str(path)

    def certificates(self, name, nonce=NONCE):
        """The record, and the paths of root, issuing CA and device certificate in PEM."""
        (record,) = node.ask("certificate", "--name", name, "--nonce", nonce)["node_data"]
        paths = []
        for index, entry in enumerate(record["certs"]):
            der = self.file(f"{index}.der", bytes.fromhex(entry["data"]))
            paths.append(f"{der}.pem")
            run("openssl", "x509", "-inform", "DER", "-in", der, "-out", paths[-1])
        return record, paths

    def public_key(self, certificate):
        path = str(self.directory / "key.pem")
        pathlib.Path(path).write_text(run("openssl", "x509", "-in", certificate, "-noout", "-pubkey"))
        return path

    def test_chains_and_nonce_signature(self):
        _, (_, _, identity) = self.certificates("Kestrin VOXA")
        identity_key = pathlib.Path(self.public_key(identity)).read_text()
        for name in ("Kestrin VOXA", "Kestrin AIK"):
            with self.subTest(name):
                record, (root, authority, device) = self.certificates(name)
                run("openssl", "verify", "-CAfile", root, "-untrusted", authority, device)
                self.assertEqual([entry["name"] for entry in record["certs"]], [f"{name} Root", f"{name} CA", name])
                self.assertEqual((record["nonce"], record["sig_alg"]), (NONCE, 2))
                signed = bytes.fromhex(NONCE + "00000002" + "".join(entry["data"] for entry in record["certs"]))
                key = self.file("identity.pem", identity_key.encode())
                run("openssl", "dgst", "-sha256", "-verify", key, "-signature",
                    self.file("signature", bytes.fromhex(record["signature"])), self.file("signed", signed))

    def test_unknown_name_is_the_attestation_key_and_customers_have_none(self):
        record, _ = self.certificates("nobody")
        self.assertEqual(record["certs"][2]["name"], "Kestrin AIK")
        for name in ("Customer LDevID", "Customer AIK"):
            self.assertEqual(node.attestctl("certificate", "--name", name).returncode, 1)
        self.assertTrue(any(line.startswith("attestation_get_certchain(): Failed to kovc_so_read  kov ")
                            for line in node.trace()))

    def test_quoted_values_are_those_of_the_recorded_boot(self):
        every = ",".join(map(str, range(24)))
        for pcrs in ("10", "1,2,3,4,5,6,7", "0,1,2,3,4,5,6,7", "0,1,2,3,4,5,6,7,9", "10,0,7", every):
            with self.subTest(pcrs):
                (record,) = node.ask("pcrs", "--pcr", pcrs, "--nonce", NONCE)["node_data"]
                asked = [int(index) for index in pcrs.split(",")]
                self.assertEqual([pcr["index"] for pcr in record["pcrs"]], asked)
                self.assertTrue(record["quote"] and record["quote_signature"])
                for pcr in record["pcrs"]:
                    if pcr["index"] in RECORDED:
                        self.assertEqual(pcr["value"], RECORDED_PCRS["sha256"][str(pcr["index"])])

    def test_every_bank_of_the_tpm_holds_the_recorded_boot(self):
        node.ensure_stopped()  # the TPM serves one connection at a time
        self.addCleanup(node.restart)
        for bank, recorded in RECORDED_PCRS.items():
            listed = run("tpm2_pcrread", "-T", os.environ["NODE_TPM"], f"{bank}:{','.join(map(str, RECORDED))}")
            values = {int(pcr): value.lower() for pcr, value in re.findall(r"(\d+) *: 0x(\w+)", listed)}
            self.assertEqual(values, {pcr: recorded[str(pcr)] for pcr in RECORDED}, bank)

    def test_hardware_integrity_is_bound_to_pcr_15(self):
        for algorithm, bank in ((1, "sha256"), (0, "sha1")):
            with self.subTest(bank):
                (record,) = node.ask("hw-integrity", "--hash-algo", str(algorithm), "--nonce", NONCE)["node_data"]
                self.assertEqual(record["source_name"], f"{os.uname().nodename}_zuvari"[:31])
                self.assertEqual(record["key_cert_name"], "Kestrin AIK")
                reference = record.get("uid_digests_db0", [])
                self.assertEqual(reference, record.get("uid_digests_db1", []))
                (pcr,) = record["pcrs"]
                self.assertTrue(record["quote"] and record["quote_signature"])
                if reference:
                    digest = hashlib.new(bank, bytes.fromhex("".join(uid["digest"] for uid in reference))).digest()
                    expected = hashlib.new(bank, bytes(len(digest)) + digest).hexdigest()
                    self.assertEqual((pcr["index"], pcr["value"]), (15, expected))

    def test_setting_that_cannot_be_understood(self):
        self.addCleanup(node.restart)
        node.restart("ATTEST_TPM=serial:/dev/ttyS0")
        last = [line for line in node.trace() if line.startswith("attestation_local_init(): ")][-1]
        self.assertIn("Failed to initilize platform_get_kov_device_info ", last)


if __name__ == "__main__":
    unittest.main()
