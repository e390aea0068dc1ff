"""Directories of evidence that are damaged or hostile, and places where none can be saved."""
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest
from concurrent import futures

import grpc

import vectors

PROGRAM = os.environ["ATTESTCTL"]
api = vectors.load_contract()
GOOD = vectors.HERE / "good"


class Damaged(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.directory = pathlib.Path(folder.name) / "evidence"
        shutil.copytree(GOOD, self.directory)

    def refused(self, words):
        done = subprocess.run([PROGRAM, "attest", "--from", self.directory], capture_output=True, timeout=60,
                              check=False)
        self.assertEqual((done.returncode, done.stdout), (2, b""), done.stderr)
        self.assertRegex(done.stderr.decode(), rf"\Aattestctl: [ -~]*{words}[ -~]*\n\Z")

    def write(self, name, data):
        """Replaces a file and lists it as it is then."""
        (self.directory / name).write_bytes(data)
        files = {file: (self.directory / file).read_bytes() for file in vectors.FILES}
        (self.directory / vectors.SUMS).write_bytes(vectors.sums_of(files))

    def test_files_that_are_not_what_is_listed(self):
        for name in vectors.FILES:
            with self.subTest(name):
                file = self.directory / name
                whole = file.read_bytes()
                file.write_bytes(whole[:-1])
                self.refused(f"{name} is not the file that SHA256SUMS lists")
                file.write_bytes(b"")
                self.refused(f"{name} is not the file that SHA256SUMS lists")
                file.unlink()
                self.refused(f"cannot read .*{name}: No such file")
                file.write_bytes(whole)

    def test_lists_that_are_none(self):
        sums = self.directory / vectors.SUMS
        whole = sums.read_bytes()
        lines = whole.splitlines(keepends=True)
        for bad in (b"", whole[:-1], whole + b"\n", whole + lines[0], whole.replace(b"  pcrs", b" *pcrs", 1),
                    whole.replace(b"pcrs.request", b"../../../etc/passwd"), b"\0" * 5000, b"\x1b[2J\n",
                    whole + b"0" * 64 + b"  \x1b[2J\n"):
            with self.subTest(bad[:80]):
                sums.write_bytes(bad)
                self.refused("SHA256SUMS is no list of files of evidence, or is cut")
        sums.write_bytes(b"".join(line for line in lines if b"pcrs.request" not in line))
        self.refused("SHA256SUMS does not list pcrs.request")
        sums.unlink()
        self.refused("cannot read .*SHA256SUMS: No such file")
        shutil.rmtree(self.directory)
        self.refused("cannot read .*SHA256SUMS: No such file")
        self.directory.write_bytes(b"")
        self.refused("cannot read .*SHA256SUMS: Not a directory")

    def test_files_that_are_no_files(self):
        for name in (vectors.SUMS, "pcrs.response", vectors.IMA_LOG):
            for make in (os.mkfifo, os.mkdir, lambda path: os.symlink("/dev/zero", path)):
                with self.subTest(name, make=make):
                    file = self.directory / name
                    whole = file.read_bytes()
                    file.unlink()
                    make(file)
                    self.refused(f"{name} is no regular file")
                    os.rmdir(file) if file.is_dir() else file.unlink()
                    file.write_bytes(whole)

    def test_messages_that_are_none(self):
        listed = (GOOD / vectors.IMA_LOG).read_bytes()
        for name, bad, words in (
                ("pcrs.response", b"\xff" * 100, "is no attest_pcr_response"),
                ("identity.request", b"\x0a\xff\xff\xff\xff\x0f", "is no get_certificate_request"),
                ("boot-log.response", b"\x0a\x03\x0a\x01\xff", "is no get_platform_boot"),  # a name that is no UTF-8
                (vectors.IMA_LOG, listed[:-1], "message 1 is no NodeIMAData"),
                (vectors.IMA_LOG, listed + b"\xff\xff\xff\xff\x07", "message 2 is no NodeIMAData"),
                (vectors.IMA_LOG, listed + b"\x80", "message 2 is no NodeIMAData")):
            with self.subTest(name, bad=bad[-10:]):
                whole = (self.directory / name).read_bytes()
                self.write(name, bad)
                self.refused(f"{name}:? {words}")
                self.write(name, whole)

    def test_empty_answers_are_evidence_that_is_missing(self):
        self.write("pcrs.response", b"")  # a node that answered without evidence
        done = subprocess.run([PROGRAM, "attest", "--from", self.directory], capture_output=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (1, b""))
        self.assertIn(b"pcrs                          missing  the node answered without evidence", done.stdout)


class Node:
    """Answers one-shot questions with a record without content, that for the boot log with no record, and streams what
    the test says."""

    def __init__(self, messages):
        self.server = grpc.server(futures.ThreadPoolExecutor(4))
        answers = {"GetCertificate": b"\x0a\x00", "AttestPcrs": b"\x0a\x00", "GetPlatformBootIntegrityEventLogs": b""}
        handlers = {method: grpc.unary_unary_rpc_method_handler(lambda r, c, answer=answer: answer)
                    for method, answer in answers.items()}
        handlers["StreamPlatformImaEventLogs"] = grpc.unary_stream_rpc_method_handler(
            lambda r, c: iter(messages), response_serializer=api.NodeIMAData.SerializeToString)
        self.server.add_generic_rpc_handlers(
            (grpc.method_handlers_generic_handler("remote_attestation_api.RemoteAttestationApi", handlers),))
        self.target = f"127.0.0.1:{self.server.add_insecure_port('127.0.0.1:0')}"

    def __enter__(self):
        self.server.start()
        return self

    def __exit__(self, *_):
        self.server.stop(0).wait()


class Saving(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.directory = pathlib.Path(folder.name) / "evidence"

    def attest(self, target, *arguments, **more):
        return subprocess.run([PROGRAM, "--target", target, "attest", *arguments], capture_output=True, timeout=60,
                              check=False, **more)

    def test_what_came_is_saved_and_judged_as_it_was(self):
        messages = [api.NodeIMAData(node_name="n", events=[api.IMA_EVENT(event_num=1)]), api.NodeIMAData(node_name="n")]
        with Node(messages) as node:  # one that has never heard of hardware
            live = self.attest(node.target, "--save", self.directory)
            self.assertEqual(live.returncode, 1, live.stderr)
            again = self.attest(node.target, "--save", self.directory)
        self.assertEqual((again.returncode, again.stdout), (2, b""))
        self.assertRegex(again.stderr, rb"\Aattestctl: cannot make .*evidence: File exists\n\Z")
        subprocess.run(["sha256sum", "--check", "--strict", "--quiet", vectors.SUMS], cwd=self.directory, check=True)
        self.assertEqual({file.name for file in self.directory.iterdir()},
                         {*vectors.FILES, vectors.SUMS} - {"hw-integrity.response"})
        saved = vectors.read_delimited(api.NodeIMAData, (self.directory / vectors.IMA_LOG).read_bytes())
        self.assertEqual(saved, messages)
        offline = self.attest("127.0.0.1:1", "--from", self.directory)
        self.assertEqual(offline.returncode, 1)
        self.assertEqual(offline.stdout.partition(b"Checks")[2], live.stdout.partition(b"Checks")[2])

    def test_what_cannot_be_saved_leaves_nothing(self):
        done = self.attest("127.0.0.1:1", "--save", self.directory)
        self.assertEqual(done.returncode, 2)
        self.assertFalse(self.directory.exists())
        many = [api.NodeIMAData(node_name="n", events=[api.IMA_EVENT(event_name=b"x" * 9000)])] * 100

        def on_a_full_disk():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            import resource
            resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 16, 1 << 16))

        with Node(many) as node:
            done = self.attest(node.target, "--save", self.directory, preexec_fn=on_a_full_disk, restore_signals=False)
        self.assertEqual(done.returncode, 2)
        self.assertRegex(done.stderr, rb"\Aattestctl: cannot write .*ima-log.messages: File too large\n\Z")
        self.assertFalse(self.directory.exists())


if __name__ == "__main__":
    unittest.main()
