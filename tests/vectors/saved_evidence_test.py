"""Directories of evidence that are damaged or hostile, and places where none can be saved."""
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import tempfile
import unittest

import grpc
import remote_attestation_api_pb2 as api
import vectors
from fake_node import STREAM, FakeNode, Program, run

GOOD = vectors.HERE / "good"


class Damaged(Program):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.directory = pathlib.Path(folder.name) / "evidence"
        shutil.copytree(GOOD, self.directory)

    def refused(self, words):
        self.expect(run(None, "attest", "--from", self.directory), 2, f"[ -~]*{words}[ -~]*", "")

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

    def test_a_file_that_no_node_can_have_sent(self):
        os.truncate(self.directory / "pcrs.response", 1 << 40)  # of holes: it takes no room, and hours to hash
        self.refused("pcrs.response is larger than what a node can have sent")

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
        done = run(None, "attest", "--from", self.directory)
        self.expect(done, 1)
        self.assertIn(b"pcrs                          missing  the node answered without evidence", done.stdout)


class Saving(Program):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.directory = pathlib.Path(folder.name) / "evidence"

    def test_what_came_is_saved_and_judged_as_it_was(self):
        messages = [api.NodeIMAData(node_name="n", events=[api.IMA_EVENT(event_num=1)]), api.NodeIMAData(node_name="n")]
        record_without_content = b"\x0a\x00"
        answers = {
            "GetCertificate": record_without_content,
            "AttestPcrs": record_without_content,
            "GetPlatformHwIntegrity": lambda r, c: c.abort(grpc.StatusCode.UNIMPLEMENTED, "never heard of hardware"),
            STREAM: messages,
        }
        with FakeNode(answers) as node:
            live = run(node.target, "attest", "--save", self.directory)
            self.expect(live, 1)
            again = run(node.target, "attest", "--save", self.directory)
        self.expect(again, 2, "cannot make .*evidence: File exists", "")
        subprocess.run(["sha256sum", "--check", "--strict", "--quiet", vectors.SUMS], cwd=self.directory, check=True)
        self.assertEqual({file.name for file in self.directory.iterdir()},
                         {*vectors.FILES, vectors.SUMS} - {"hw-integrity.response"})
        saved = vectors.read_delimited(api.NodeIMAData, (self.directory / vectors.IMA_LOG).read_bytes())
        self.assertEqual(saved, messages)
        offline = run(None, "attest", "--from", self.directory)
        self.expect(offline, 1)
        self.assertEqual(offline.stdout.partition(b"Checks")[2], live.stdout.partition(b"Checks")[2])

    def test_what_cannot_be_saved_leaves_nothing(self):
        self.expect(run("127.0.0.1:1", "attest", "--save", self.directory), 2, "cannot reach 127.0.0.1:1: .*")
        self.assertFalse(self.directory.exists())

        def on_a_full_disk():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 16, 1 << 16))

        many = [api.NodeIMAData(node_name="n", events=[api.IMA_EVENT(event_name=b"x" * 9000)])] * 100
        with FakeNode({STREAM: many}) as node:
            done = run(node.target, "attest", "--save", self.directory, preexec_fn=on_a_full_disk,
                       restore_signals=False)
        self.expect(done, 2, "cannot write .*ima-log.messages: File too large")
        self.assertFalse(self.directory.exists())


if __name__ == "__main__":
    unittest.main()
