"""The agent under what its unit forbids: every operation and its relay to a management controller work as they do
without, and what is traced is the same."""
import pathlib
import re
import shutil
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "end_to_end"))
import node  # noqa: E402

UNIT = HERE.parents[1] / "packaging/systemd/attestation_agent.service.in"
CONFINED = ("--", "/usr/bin/python3", "-B", str(HERE / "confined.py"), str(UNIT))
OPERATIONS = ("certificate", "pcrs --pcr 0,7,10", "boot-log", "ima-log", "ima-log --stream", "hw-integrity", "attest")
UPTIME = re.compile(r"up [\d:]+")


@unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd here: it knows the groups of system calls")
class Confined(unittest.TestCase):
    def life(self, *wrapper):
        """An agent's start and every operation: what was answered, and the kinds of lines in its trace."""
        run_dir = tempfile.mkdtemp()
        node.agent("start", f"ATTEST_RUN_DIR={run_dir}", *wrapper)
        status = pathlib.Path(f"/proc/{node.agent_pid()}/status").read_text()
        answers, lines = {}, set(node.trace(run_dir))
        for operation in OPERATIONS:
            done = node.attestctl(*operation.split())
            self.assertEqual(done.returncode, 0, f"{operation}: {done.stdout}{done.stderr}")
            answers[operation] = done.stdout
            lines |= set(node.trace(run_dir))  # the ring keeps the last of them only
        node.agent("stop")
        # Numbers, hexadecimal and the base64 of what is relayed are a request's own.
        own = re.compile(r"\b(0x)?[0-9a-f]*\d[0-9a-f]*\b|(?<=\")[A-Za-z0-9+/=]*(?=\"\]\})")
        return status, answers, {own.sub("#", line) for line in lines}

    def test_every_operation_works_as_without(self):
        node.ensure_stopped()
        self.life()  # makes the table and the cache
        _, free_answers, free_lines = self.life()
        status, answers, lines = self.life(*CONFINED)
        self.assertIn("Seccomp_filters:\t2\n", status)
        self.assertIn("CapEff:\t0000000000000000\n", status)
        self.assertEqual(lines - free_lines, set())
        for operation, answer in answers.items():
            self.assertIn("bmc", answer, operation)
        for operation in ("boot-log", "ima-log"):
            self.assertEqual(UPTIME.sub("", answers[operation]), UPTIME.sub("", free_answers[operation]))
        self.assertIn("\nVERIFIED", answers["attest"])


if __name__ == "__main__":
    unittest.main()
