"""Mutual TLS as an operator runs it: who is refused and how that reads, what each client may ask for, and files that
change under a running agent."""
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import grpc

import node

RECIPE = """
new() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $1.key -subj /CN=$1 "${@:2}"; }
issue() {
    new $1 -out $1.csr
    openssl x509 -req -in $1.csr -CA $3.crt -CAkey $3.key -CAcreateserial -days 2 -extfile <(echo "$2") -out $1.crt
}
set -e
for ca in first second; do new $ca -x509 -days 2 -out $ca.crt; done
issue node subjectAltName=IP:127.0.0.1 first
issue renewed subjectAltName=IP:127.0.0.1 second
issue reader subjectAltName=DNS:reader.example,URI:spiffe://example/reader first
issue auditor subjectAltName=email:auditor@example.net first
issue nameless subjectAltName=DNS:nobody.example first
issue successor subjectAltName=DNS:reader.example second
cat first.crt second.crt > both.crt
"""
ALLOWED = """
# who                       what
dns:READER.example          GetPlatformBootIntegrityEventLogs
"subject:CN=auditor"        GetPlatformBootIntegrityEventLogs, AttestPcrs
email:auditor@example.net   GetCertificate
"""


class MutualTls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        subprocess.run(["bash", "-c", RECIPE], cwd=cls.directory, check=True, capture_output=True)
        (cls.directory / "served").mkdir()

    def setUp(self):
        self.put("node", "first")
        self.allowed = self.directory / "allowed"
        self.allowed.write_text(ALLOWED)
        self.said = len(node.agent_words())

    def serve(self, *settings):
        node.restart(f"ATTEST_TLS_DIR={self.directory}/served", *settings)
        self.addCleanup(node.ensure_stopped)

    def replace(self, path, content):
        fresh = self.directory / "fresh"
        fresh.write_bytes(content)
        fresh.rename(path)

    def put(self, own, client_ca):
        for file, source in {"server.crt": f"{own}.crt", "server.key": f"{own}.key",
                             "client-ca.crt": f"{client_ca}.crt"}.items():
            self.replace(self.directory / "served" / file, (self.directory / source).read_bytes())

    def attestctl(self, client, *command, ca="first"):
        return node.attestctl("--ca", f"{self.directory}/{ca}.crt", "--cert", f"{self.directory}/{client}.crt",
                              "--key", f"{self.directory}/{client}.key", *command)

    def words(self, pattern):
        """The agent's lines since the test began that have the pattern."""
        return [line for line in node.agent_words()[self.said:].splitlines() if re.search(pattern, line)]

    def wait_for_words(self, pattern):
        node.wait_for(lambda: self.words(pattern), pattern)

    def test_each_client_gets_what_the_list_allows_it_and_the_refused_are_named(self):
        self.serve(f"ATTEST_ALLOW={self.allowed}")
        for client, command, denied in (
                ("reader", ["boot-log"], None),
                ("reader", ["pcrs", "--pcr", "0"], "uri:spiffe://example/reader"),
                ("reader", ["ima-log", "--stream"], "uri:spiffe://example/reader"),
                ("auditor", ["boot-log"], None),
                ("auditor", ["pcrs", "--pcr", "0"], None),
                ("auditor", ["certificate"], None),
                ("auditor", ["hw-integrity"], "email:auditor@example.net"),
                ("nameless", ["boot-log"], "dns:nobody.example")):
            with self.subTest(client=client, command=command):
                done = self.attestctl(client, *command)
                if denied:
                    self.assertEqual(done.returncode, 2)
                    self.assertRegex(done.stderr, f"PERMISSION_DENIED: {denied} is not allowed to ask this node for ")
                else:
                    self.assertNotIn("PERMISSION_DENIED", done.stderr)
                    self.assertIn(done.returncode, (0, 1), done.stderr)  # asked and answered
        credentials = grpc.ssl_channel_credentials(*((self.directory / file).read_bytes() for file in (
            "first.crt", "nameless.key", "nameless.crt")))
        with grpc.secure_channel(os.environ["NODE_ADDRESS"], credentials) as channel:
            health = channel.unary_unary("/grpc.health.v1.Health/Check")(b"", timeout=60)
        self.assertEqual(health, b"\x08\x01", "whoever is served may ask for it")
        # All of them come from one address, so that one of their lines stands for them.
        self.assertEqual(len(self.words("refused")), 1)
        self.assertRegex(self.words("refused")[0], r"AttestPcrs from 127\.0\.0\.1:\d+ refused: uri:spiffe://example/reader")

    def test_a_changed_list_is_in_force_at_the_next_call_and_a_broken_one_changes_nothing(self):
        self.serve(f"ATTEST_ALLOW={self.allowed}")
        self.assertEqual(self.attestctl("nameless", "boot-log").returncode, 2)
        self.replace(self.allowed, ALLOWED.encode() + b"dns:nobody.example *\n")
        self.assertEqual(self.attestctl("nameless", "boot-log").returncode, 0)
        self.replace(self.allowed, ALLOWED.encode() + b"dns:nobody.example Everything\n")
        for _ in range(2):
            self.assertEqual(self.attestctl("nameless", "boot-log").returncode, 0)
        self.assertEqual(self.words("list read before"), [
            f'attestation_agent: ATTEST_ALLOW {self.allowed}: line 6: "Everything" is no operation; the list read '
            "before stays in force"])

    def test_new_certificates_serve_new_connections_and_calls_under_way_go_on(self):
        self.serve()
        reader = grpc.ssl_channel_credentials(*[(self.directory / file).read_bytes()
                                                for file in ("first.crt", "reader.key", "reader.crt")])
        with grpc.secure_channel(os.environ["NODE_ADDRESS"], reader) as channel:
            watch = channel.unary_stream("/grpc.health.v1.Health/Watch")(b"", timeout=120)
            self.assertEqual(next(watch), b"\x08\x01")
            self.put("renewed", "second")
            self.assertEqual(self.attestctl("successor", "boot-log", ca="second").returncode, 0)
            self.assertEqual(len(self.words("new files are in use")), 1)
            # The certificates from before count no more, but for what is under way.
            self.assertRegex(self.attestctl("reader", "boot-log", ca="second").stderr,
                             "^attestctl: cannot reach .*; the node may not accept the certificate of --cert$")
            self.wait_for_words(r"connection from 127\.0\.0\.1:\d+ refused: certificate verify failed")
            self.assertTrue(watch.is_active())
            watch.cancel()
        self.put("node", "both")
        self.assertEqual(self.attestctl("reader", "boot-log").returncode, 0)
        self.assertEqual(self.attestctl("successor", "boot-log").returncode, 0)

    def test_a_half_written_set_keeps_the_one_before_and_is_told_once(self):
        self.serve()
        served = self.directory / "served"
        whole = (self.directory / "both.crt").read_bytes()
        for what, file, content, told in (
                ("certificate without its key", "server.crt", (self.directory / "renewed.crt").read_bytes(),
                 "server.key: not the key of the certificate in server.crt"),
                ("CA cut in its second certificate", "client-ca.crt", whole[:-300], "client-ca.crt: no PEM .* cut"),
                ("file gone", "server.key", None, "server.key: No such file or directory")):
            with self.subTest(what):
                self.put("node", "first")
                self.assertEqual(self.attestctl("reader", "boot-log").returncode, 0)
                if content is None:
                    (served / file).unlink()
                else:
                    self.replace(served / file, content)
                for _ in range(2):
                    self.assertEqual(self.attestctl("reader", "boot-log").returncode, 0)
                self.assertEqual(len(self.words(f"{told}; the files read before stay in use")), 1)

    def test_a_client_without_a_certificate_is_refused_with_its_address(self):
        self.serve()
        only_ca = grpc.ssl_channel_credentials((self.directory / "first.crt").read_bytes())
        with grpc.secure_channel(os.environ["NODE_ADDRESS"], only_ca) as channel:
            with self.assertRaises(grpc.RpcError):
                channel.unary_unary("/grpc.health.v1.Health/Check")(b"", timeout=30)
        self.wait_for_words(r"connection from 127\.0\.0\.1:\d+ refused: peer did not return a certificate")


if __name__ == "__main__":
    unittest.main()
