"""The examples for verifier authors, on a node that is good and on one that is not."""
import os
import pathlib
import subprocess
import tempfile
import unittest

import node

CPP = node.BUILD / "tests/examples/cpp/ask_node"
PYTHON = node.SOURCE / "examples" / "python" / "ask_node.py"


class Examples(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        subprocess.run(["protoc", f"--proto_path={node.SOURCE}/api", f"--python_out={cls.folder.name}",
                        f"--grpc_out={cls.folder.name}", "--plugin=protoc-gen-grpc=/usr/bin/grpc_python_plugin",
                        "remote_attestation_api.proto"], check=True)

    def ask(self, program, *arguments, target=os.environ["NODE_ADDRESS"]):
        command = ["/usr/bin/python3", "-B", str(program)] if program == PYTHON else [str(program)]
        done = subprocess.run([*command, target, *arguments], capture_output=True, text=True, timeout=60, check=False,
                              env={**os.environ, "PYTHONPATH": self.folder.name, "GRPC_VERBOSITY": "NONE"})
        return done.returncode, done.stdout + done.stderr

    def root(self):
        (record,) = node.ask("certificate")["node_data"]
        path = pathlib.Path(self.folder.name) / "root.pem"
        der = bytes.fromhex(record["certs"][0]["data"])
        path.write_bytes(subprocess.run(["openssl", "x509", "-inform", "DER"], input=der, capture_output=True,
                                        check=True).stdout)
        return str(path)

    def test_1_good_node(self):
        name = os.uname().nodename
        self.assertEqual(self.ask(CPP), (0, f"{name}: Kestrin VOXA signed the nonce\n"
                                            f"{name}: 297 events, 0 of them repeated\n"))
        replayed = f"{name}: 297 events give the quoted PCR 10, 0 came later\n"
        quoted = f"{name}: a quote of 24 PCRs, by the key of Kestrin AIK"
        self.assertEqual(self.ask(PYTHON), (0, f"{quoted}, for which nobody vouches but the node\n{replayed}"))
        self.assertEqual(self.ask(PYTHON, self.root()), (0, f"{quoted}\n{replayed}"))

    def test_2_node_that_nobody_vouches_for(self):
        self.assertEqual(self.ask(PYTHON, "/dev/null"), (1, "nobody that is trusted vouches for the attestation key\n"))
        self.assertEqual(self.ask(PYTHON, target="127.0.0.1:1")[0], 2)
        self.assertEqual(self.ask(CPP, target="127.0.0.1:1")[0], 2)

    def test_3_list_that_the_tpm_has_not_seen(self):  # the last but one: the TPM keeps it
        node.ensure_stopped()
        subprocess.run(["tpm2_pcrextend", "-T", os.environ["NODE_TPM"], f"10:sha256={64 * 'a'}"], check=True)
        node.restart()
        status, words = self.ask(PYTHON)
        self.assertEqual((status, words.splitlines()[-1]), (1, "the list is not what the TPM saw"))

    def test_4_node_without_evidence(self):
        node.restart("ATTEST_TPM=swtpm:path=/nowhere")
        self.assertEqual(self.ask(CPP), (1, "no certificates\n"))
        self.assertEqual(self.ask(PYTHON), (1, "no evidence\n"))


if __name__ == "__main__":
    unittest.main()
