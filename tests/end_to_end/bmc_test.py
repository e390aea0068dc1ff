"""A node with a BMC: its records beside the node's own, and what is left of them when the BMC misbehaves."""
import json
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import unittest

import node

OPERATIONS = {  # attestctl's command: the name under which the agent traces its relay
    ("certificate",): "attestation_get_certchain_bmc",
    ("pcrs", "--pcr", "0,7,10"): "attestation_attest_pcrs_bmc",
    ("boot-log",): "attestation_get_bmc_sb_event_logs",
    ("ima-log",): "attestation_get_bmc_ima_event_logs",
    ("hw-integrity",): "get_platform_hw_integrity_bmc",
}
BOOT_LOG = OPERATIONS[("boot-log",)]
BOTH, OWN = ["node", "bmc"], ["node"]
LEAK_CHECK = node.BUILD / "tests/support/libattest_leak_check.so"
LIMIT_S = 100  # far more than a request may take, and less than the BMC stalls

FAILED = r"FETCH\(\): Failed to fetch data from BMC$"


def libcurl(*codes):
    return fr"perform_rest_call\(\): \nlibcurl: \(({'|'.join(map(str, codes))})\)"


def status(code):
    return fr"perform_rest_call\(\): Response code: {code}$"


TIMEOUT, RESET, TLS, WRITE = 28, 56, 35, 23
# What the BMC does wrong, and the trace of it after the relay's start line: expressions, one a line, none left out.
# Once the login is through the call's body is traced.
SENDING = r"rest_operation\(\): Sending \{\"data\":\[\"\d\",\"node\",\"[A-Za-z0-9+/=]*\"\]\}$"
CURL_SAYS = r"perform_rest_call\(\): (REST Error Buffer|Curl Error): \S"
RECEIVED = r"FETCH\(\): Received response \d+$"
EITHER = {  # of both transfers, the login and the call
    "tls-failure": [libcurl(TLS), CURL_SAYS],
    "reset-handshake": [libcurl(TLS, RESET), CURL_SAYS],
    "stall-handshake": [libcurl(TIMEOUT), CURL_SAYS],
    "401": [status(401)],
    "500": [status(500)],
    "redirect": [status(302)],
    "stall-before-headers": [libcurl(TIMEOUT), CURL_SAYS],
    "stall-after-headers": [libcurl(TIMEOUT), CURL_SAYS],
    "reset-before-headers": [libcurl(RESET), CURL_SAYS],
    "reset-after-headers": [libcurl(RESET), CURL_SAYS],
}
FAULTS = {
    **{f"login-{fault}": said for fault, said in EITHER.items()},
    "login-no-cookie": [SENDING, status(401)],
    **{f"call-{fault}": [SENDING, *said] for fault, said in EITHER.items()},
    "call-slow-pieces": [SENDING, libcurl(TIMEOUT), CURL_SAYS],
    "call-huge-reply": [SENDING, r"local_write_cb\(\): Failed to realloc \d+ bytes$", libcurl(WRITE), CURL_SAYS],
    "call-not-ok": [SENDING, r"parse_data\(\): Failure on BMC, msg: No blob$"],
    "call-status-first": [SENDING, r"parse_data\(\): Malformed Response \d+"],
    "call-no-data": [SENDING, r"parse_data\(\): Malformed Response \d+"],
    "call-garbage-base64": [SENDING, r"rest_operation\(\): (Base64 decode failed, err :|No valid data received)"],
    "call-truncated-message": [SENDING, RECEIVED],
}
BUSY = {"call-huge-reply": [SENDING, libcurl(TIMEOUT), CURL_SAYS]}  # on a machine that is too slow for it


def set_fault(name):
    subprocess.run(["node-bmc", "fault", name], check=True)


def sources(*command):
    """Whose records the answer to the command has, in their order."""
    done = node.attestctl("--json", "--timeout", str(LIMIT_S), *command, timeout=3 * LIMIT_S)
    return [record["node_name"] for record in json.loads(done.stdout.splitlines()[0])["node_data"]]


def relay_trace(operation):
    """What was traced since the operation's last start."""
    lines = node.trace()
    starts = [i for i, line in enumerate(lines) if line.startswith(f"{operation}(): Starting ")]
    return lines[starts[-1] + 1:]


class Bmc(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        check = [f"LD_PRELOAD={LEAK_CHECK}", "ASAN_OPTIONS=verify_asan_link_order=0"] if LEAK_CHECK.exists() else []
        node.restart(*check)

    def tearDown(self):
        set_fault("none")

    def expect_no_leaks(self):
        """An instrumented agent is asked for its leaks."""
        if LEAK_CHECK.exists():
            before = len(node.agent_words())
            os.kill(node.agent_pid(), signal.SIGUSR2)
            node.wait_for(lambda: re.search("^(no leaks|leaks found)$", node.agent_words()[before:], re.M),
                          "the leak check")
            said = node.agent_words()[before:]
            self.assertTrue(said.endswith("no leaks\n"), said)

    def expect_trace(self, operation, expected):
        """The lines of the operation's last relay, in their order, are one of the lists expected and no others."""
        relay = ("perform_rest_call", "rest_operation", "parse_data", "local_write_cb", "login_cert", operation)
        lines = [line for line in relay_trace(operation) if line.startswith(tuple(f"{name}(): " for name in relay))]
        self.assertTrue(any(len(lines) == len(patterns) and
                            all(re.match(pattern.replace("FETCH", operation), line)
                                for line, pattern in zip(lines, patterns)) for patterns in expected), lines)


class Evidence(Bmc):
    def test_every_operation_and_the_stream_have_both_records(self):
        for command, operation in OPERATIONS.items():
            with self.subTest(command):
                self.assertEqual(sources(*command), BOTH)
                if command != ("ima-log",):  # parsing a list traces more than the ring holds
                    self.assertRegex(relay_trace(operation)[1], f"^{RECEIVED.replace('FETCH', operation)}")
        done = node.attestctl("--json", "ima-log", "--stream")
        messages = [json.loads(line) for line in done.stdout.splitlines()]
        counts = {name: sum(len(message.get("events", [])) for message in messages if message["node_name"] == name)
                  for name in BOTH}
        self.assertEqual(counts, {"node": 2675, "bmc": 297})

    def test_records_are_those_of_another_machine_with_a_root_of_its_own(self):
        own, other = node.ask("pcrs", "--pcr", "10")["node_data"]
        for record, name in ((own, "a"), (other, "b")):
            recorded = json.loads((node.DATA / f"recorded-{name}-pcrs.json").read_text())["sha256"]["10"]
            self.assertEqual(record["pcrs"][0]["value"], recorded)
        own, other = node.ask("certificate")["node_data"]
        with tempfile.TemporaryDirectory() as directory:
            roots = []
            for record in (own, other):
                roots.append(pathlib.Path(directory) / record["node_name"])
                roots[-1].write_bytes(bytes.fromhex(record["certs"][0]["data"]))
            for node_root, bmc_root, good in ((*roots, True), (*reversed(roots), False)):
                done = node.attestctl("attest", "--root", str(node_root), "--bmc-root", str(bmc_root))
                self.assertEqual(done.stdout.splitlines()[-1] == "VERIFIED", good)
                self.assertEqual(done.returncode, 0 if good else 1)


class Misbehaviour(Bmc):
    def test_the_node_answers_by_itself_and_says_why(self):
        listed = subprocess.run(["node-bmc", "faults"], check=True, capture_output=True, text=True).stdout
        self.assertEqual({line.split()[0] for line in listed.splitlines()}, {*FAULTS, "call-one-byte-pieces"})
        for fault, expected in FAULTS.items():
            with self.subTest(fault):
                set_fault(fault)
                self.assertEqual(sources("boot-log"), OWN)
                # A record that came and cannot be decoded is not spoken of again.
                end = [] if expected[-1] == RECEIVED else [FAILED]
                self.expect_trace(BOOT_LOG, [[*lines, *end] for lines in (expected, BUSY.get(fault, expected))])
        set_fault("none")
        self.assertEqual(sources("boot-log"), BOTH)
        self.expect_no_leaks()

    def test_a_reply_in_single_bytes_is_put_together(self):
        set_fault("call-one-byte-pieces")
        self.assertEqual(sources("pcrs", "--pcr", "0"), BOTH)

    def test_no_proxy_of_the_environment_gets_the_login(self):
        self.addCleanup(self.setUpClass)
        node.restart("https_proxy=http://127.0.0.1:9", "ALL_PROXY=http://127.0.0.1:9")
        self.assertEqual(sources("boot-log"), BOTH)


if __name__ == "__main__":
    unittest.main()
