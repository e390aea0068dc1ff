"""attestctl, the program, against a server that answers what each test wants."""

import hashlib
import json
import re
import resource
import socket
import subprocess
import tempfile
import unittest

import grpc
import remote_attestation_api_pb2 as api
from fake_node import (
    BOOT_LOG, COMMANDS, DATA, IMA_LOG, METHODS, PROGRAM, STEERING, STREAM, VERIFYING, FakeNode, Program, boot_events,
    boot_log, from_json, hostile_answers, ima_events, ima_record, run, say_nothing,
)


class Answers(Program):
    def test_boot_log_table_names_what_another_reader_finds(self):
        answer = boot_log(boot_events())
        with FakeNode({BOOT_LOG: answer}) as node:
            done = run(node.target, "boot-log")
        self.expect(done, 0)
        table = done.stdout.decode()
        other = subprocess.run(
            ["tpm2_eventlog", f"{DATA}/recorded-a-boot.bin"], capture_output=True, check=True
        ).stdout.decode()
        self.assertEqual(
            re.findall(r"PCR +(\d+)  (EV_\w+)", table), re.findall(r"PCRIndex: (\d+)\n  EventType: (EV_\w+)", other)
        )
        digests = [d.digest.hex() for e in answer.node_data[0].events for d in e.digests]
        self.assertEqual(re.findall(r"^ +sha(?:1|256) +([0-9a-f]+)$", table, re.MULTILINE), digests)
        self.assertEqual(re.findall(r"variable (\w+),", table), re.findall(r"UnicodeName: (\w+)", other))
        self.assertNotIn("does not fit", table)

    def test_json_is_the_content_of_the_message(self):
        answers = hostile_answers()
        with FakeNode(answers) as node:
            for method, command in COMMANDS.items():
                done = run(node.target, "--json", *command)
                judged = method in VERIFYING
                self.expect(done, 1 if judged else 0)
                lines = done.stdout.decode().split("\n")
                self.assertEqual((len(lines), lines[-1]), (3 if judged else 2, ""), method)
                self.assertIsNone(STEERING.search(lines[0]), method)
                if judged:
                    verdict = json.loads(lines[1])
                    self.assertEqual((verdict["verified"], verdict["roots_pinned"]), (False, False))
                    self.assertEqual({row["outcome"] for row in verdict["checks"]}, {"FAIL", "not made"})
                answer = answers[method][0] if method == STREAM else answers[method]
                self.assertEqual(from_json(json.loads(lines[0]), type(answer)()), answer)

    def test_hostile_text_never_reaches_a_terminal(self):
        with FakeNode(hostile_answers()) as node:
            for command in [*COMMANDS.values(), ["attest"], ["attest", "--json"]]:
                done = run(node.target, *command)
                text = done.stdout.decode() + done.stderr.decode()
                self.assertIn("\\x1b", text.replace("\\u001b", "\\x1b"), command)
                self.assertIsNone(STEERING.search(text), command)

    def test_requests_say_what_was_asked(self):
        with FakeNode({}) as node:
            run(node.target, "certificate", "--name", "Kestrin VOXA", "--nonce", "00fF")
            run(node.target, "pcrs", "--pcr=10,0,10", "--nonce", "")
            run(node.target, "hw-integrity", "--hash-algo", "2")
            run(node.target, "hw-integrity")
            run(node.target, "ima-log", "--start", "18446744073709551615", "--count", "7")
        certificate, pcrs, hardware, again, ima = node.requests
        self.assertEqual(certificate, api.get_certificate_request(cert_name="Kestrin VOXA", nonce=b"\0\xff"))
        self.assertEqual(pcrs, api.attest_pcr_request(pcr_indices=[10, 0, 10], nonce=b""))
        self.assertEqual((hardware.hash_algo, again.HasField("hash_algo")), (2, False))
        self.assertEqual((len(hardware.nonce), len(again.nonce)), (32, 32))
        self.assertNotEqual(hardware.nonce, again.nonce)
        self.assertEqual(ima, api.get_platform_ima_event_logs_request(start_event=2**64 - 1, event_count=7))

    def test_ima_table_marks_come_before_names(self):
        events = ima_events(1, 2) + ima_events(3, 1, signature=b"s")
        events[1].duplicate = 1
        events[1].template_hash = bytes(20)
        answer = api.get_platform_ima_event_logs_response(node_data=[api.NodeIMAData(node_name="n", events=events)])
        with FakeNode({IMA_LOG: answer}) as node:
            table = run(node.target, "ima-log").stdout.decode()
        self.assertEqual(re.findall(r"^ +(\d+) +10  (\S+)  ima-ng", table, re.MULTILINE),
                         [("1", "---"), ("2", "DV-"), ("3", "--S")])

    def test_huge_answer_is_taken(self):
        answer = api.get_platform_ima_event_logs_response(node_data=[ima_record(1, 20, signature=bytes(300_000))])
        with FakeNode({IMA_LOG: answer}) as node:
            done = run(node.target, "ima-log", "--json")
        self.expect(done, 0)
        self.assertGreater(len(done.stdout), 12_000_000)


class Attest(Program):
    def test_hostile_evidence_is_not_verified(self):
        with FakeNode(hostile_answers()) as node:
            done = run(node.target, "attest")
            machine = json.loads(run(node.target, "attest", "--json").stdout)
        self.expect(done, 1)
        self.assertRegex(done.stdout.decode().split("\n")[-2], r"\ANOT VERIFIED: \d+ checks failed, \d+ not made\Z")
        self.assertEqual(len(re.findall(r"  came ", done.stdout.decode())), 6)
        self.assertEqual((machine["verified"], len(machine["evidence"])), (False, 6))
        self.assertNotIn("pass", {row["outcome"] for row in machine["checks"]})
        nonces = [r.nonce for r in node.requests[:6] if "nonce" in r.DESCRIPTOR.fields_by_name]
        self.assertEqual(len(set(nonces)), 4)

    def test_report_fits_the_terminal(self):
        def shown(columns, node):
            status, text = self.run_in_terminal("stdout", "--target", node.target, "attest", columns=columns)
            self.assertEqual(status, 1)
            return text.replace("\r\n", "\n")

        with FakeNode(hostile_answers()) as node:
            one_line = run(node.target, "attest").stdout.decode()
            wide, narrow = shown(80, node), shown(60, node)
        self.assertGreater(max(map(len, one_line.splitlines())), 80)
        self.assertEqual(wide.split(), one_line.split())
        self.assertEqual(sorted(narrow.split()), sorted(one_line.split()))  # the reasons under the names
        rows = len(re.findall(r"^ {4}\S", one_line, re.MULTILINE))
        for text, columns in ((wide, 80), (narrow, 60)):
            long = [line for line in text.splitlines() if len(line) > columns and " " in line.strip()]
            self.assertEqual([line for line in long if not line.startswith("  node ")], [])
            self.assertEqual(len(re.findall(r"^ {4}\S", text, re.MULTILINE)), rows)  # no reason looks like one

    def test_replay_gives_what_the_machine_had(self):
        for recorded in ("recorded-a", "recorded-b"):
            with open(f"{DATA}/{recorded}-pcrs.json", "rb") as file:
                machine = {int(pcr): value for pcr, value in json.load(file)["sha256"].items()}
            events = boot_events(recorded)
            for wrong in (None, 0, 7, 9, 14):
                values = [api.PCR_DUMP(index=i, value=bytes.fromhex(machine[i])) for i in range(24)]
                if wrong is not None:
                    values[wrong].value = bytes(31) + b"\1"
                answers = {
                    BOOT_LOG: boot_log(events),
                    "AttestPcrs": api.attest_pcr_response(node_data=[api.NodePCRData(node_name="rack1", pcrs=values)]),
                }
                with FakeNode(answers) as node:
                    checks = json.loads(run(node.target, "attest", "--json").stdout)["checks"]
                outcome = [(row["outcome"], row["reason"]) for row in checks if row["name"] == "boot log replay"]
                expected = ("pass", "gives the quoted values of PCRs 0-7, 9 (SHA-256 of SHA-1, SHA-256); ")
                if wrong is not None:
                    expected = ("FAIL", f"does not give the quoted values of PCR {wrong}")
                self.assertEqual([(what, why[: len(expected[1])]) for what, why in outcome], [expected])

    def test_roots_that_cannot_be_read_ask_nothing(self):
        with FakeNode({}) as node:
            for command in (["certificate"], ["pcrs", "--pcr", "0"], ["hw-integrity"], ["attest"]):
                self.expect(run(node.target, *command, "--root", "/absent"), 2, "cannot read /absent: No such file .*")
                self.expect(run(node.target, *command, "--root", "/dev/null"), 2, "/dev/null: no DER certificate", "")
        self.assertEqual(node.requests, [])

    def test_what_is_missing_is_said_and_the_rest_still_asked(self):
        def refuse(_, context):
            context.abort(grpc.StatusCode.UNIMPLEMENTED, "not here")

        with FakeNode({"AttestPcrs": refuse}) as node:
            done = run(node.target, "attest")
        self.expect(done, 1)
        self.assertIn("UNIMPLEMENTED: not here", done.stdout.decode())
        self.assertEqual(done.stdout.decode().count("missing"), 6)

    def test_silent_node_does_not_cost_a_timeout_a_kind(self):
        with FakeNode({"GetCertificate": say_nothing}) as node:
            done = run(node.target, "--timeout", "2", "attest")
        self.expect(done, 2, ".*DEADLINE_EXCEEDED: no answer within 2 s")
        self.assertIn("NOT VERIFIED", done.stdout.decode())
        self.assertEqual(len(node.requests), 1)


class Failures(Program):
    def test_answer_without_evidence(self):
        with FakeNode({}) as node:
            for command in COMMANDS.values():
                self.expect(run(node.target, *command), 1, rf"{node.target} answered without evidence: no [\w ]+")
        nameless = api.get_platform_ima_event_logs_response(node_data=[api.NodeIMAData()])
        with FakeNode({IMA_LOG: nameless}) as node:
            self.expect(run(node.target, "ima-log"), 1, ".* answered without evidence: no IMA list")

    def test_rpc_error_in_one_line(self):
        def refuse(_, context):
            context.abort(grpc.StatusCode.RESOURCE_EXHAUSTED, "too\nbig \x1b[2J")

        with FakeNode({name: refuse for name in COMMANDS}) as node:
            for command in COMMANDS.values():
                done = run(node.target, *command)
                self.expect(done, 2, r".*: RESOURCE_EXHAUSTED: too\\x0abig \\x1b\[2J", "")

    def test_signers_that_the_node_refuses_are_said(self):
        def refuse(_, context):
            context.abort(grpc.StatusCode.PERMISSION_DENIED, "not for you")

        pcrs = api.attest_pcr_response(node_data=[api.NodePCRData(node_name="n")])
        with FakeNode({"AttestPcrs": pcrs, "GetCertificate": refuse}) as node:
            done = run(node.target, "pcrs", "--pcr", "0")
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr.count(b"PERMISSION_DENIED: not for you"), 2)

    def test_nobody_there(self):
        with socket.socket() as unused:
            unused.bind(("127.0.0.1", 0))
            target = f"127.0.0.1:{unused.getsockname()[1]}"
            for command in COMMANDS.values():
                self.expect(run(target, *command), 2, f"cannot reach {target}: .*Connection refused")
            self.expect(run(target, "attest"), 2, f"cannot reach {target}: .*Connection refused", "")

    def test_somebody_there_who_says_nothing(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            target = f"127.0.0.1:{silent.getsockname()[1]}"
            done = run(target, "boot-log", "--timeout", "0.5")
        self.expect(done, 2, f"cannot reach {target}: no connection within 0.5 s: it is down, or busy; ask again")

    def test_unknown_host(self):
        self.expect(run("nowhere.invalid:1", "boot-log"), 2, "cannot reach nowhere.invalid:1: .+")

    def test_answer_that_is_no_message(self):
        no_utf8 = b"\x0a\x03\x0a\x01\xff\x12\x03\x0a\x01\xff"  # the first string of a record, as field 1 and 2
        for garbage in (b"\x0a\xff\xff\xff\xff\x0f", no_utf8):
            answers = {name: garbage for name in METHODS}
            answers[STREAM] = [ima_record(1, 2), garbage, ima_record(3, 2)]
            with FakeNode(answers) as node:
                for command in COMMANDS.values():
                    self.expect(run(node.target, *command), 2, ".*: the answer is no message of .*")

    def test_output_that_cannot_be_written(self):
        answers = {
            BOOT_LOG: boot_log(boot_events()),
            STREAM: [ima_record(1 + 1000 * i, 1000) for i in range(3)],
        }
        with FakeNode(answers) as node, open("/dev/full", "wb") as full:
            for command in (["boot-log"], ["ima-log", "--stream"], ["--version"]):
                done = subprocess.run(
                    [PROGRAM, "--target", node.target, *command], stdout=full, stderr=subprocess.PIPE, check=False
                )
                self.expect(done, 2, "cannot write the output: No space left on device")

    def test_usage(self):
        cases = [
            ([], "a command is missing"),
            (["bogus"], 'unknown command "bogus"'),
            (["boot-log", "ima-log"], 'unexpected "ima-log" after boot-log'),
            (["--bogus", "boot-log"], "unknown option --bogus"),
            (["--target"], "--target needs a value: --target HOST:PORT"),
            (["--target", "host", "boot-log"], "--target must be HOST:PORT.*"),
            (["--target", "host:0", "boot-log"], "--target must be HOST:PORT.*"),
            (["--target", "::1:50551", "boot-log"], "--target must be HOST:PORT.*"),
            (["--target", "[::1]", "boot-log"], "--target must be HOST:PORT.*"),
            (["--timeout", "0", "boot-log"], "--timeout must be .*"),
            (["--timeout", "nan", "boot-log"], "--timeout must be .*"),
            (["--json=1", "boot-log"], "--json takes no value"),
            (["--json", "boot-log", "--json"], "--json is given twice"),
            (["pcrs"], "pcrs needs --pcr"),
            (["pcrs", "--pcr", "0,,1"], "--pcr must be .*"),
            (["pcrs", "--pcr", "-1"], "--pcr must be .*"),
            (["pcrs", "--pcr", "4294967296"], "--pcr must be .*"),
            (["pcrs", "--pcr", ",".join(["0"] * 256)], "--pcr must be .*"),
            (["pcrs", "--pcr", "0", "--nonce", "abc"], "--nonce must be .*"),
            (["certificate", "--nonce", "0g"], "--nonce must be .*"),
            (["certificate", "--name", ""], "--name must not be empty.*"),
            (["boot-log", "--nonce", "00"], "--nonce is no option of boot-log"),
            (["ima-log", "--start", "18446744073709551616"], "--start must be .*"),
            (["ima-log", "--count", "1x"], "--count must be .*"),
            (["hw-integrity", "--hash-algo", "-1"], "--hash-algo must be .*"),
            (["boot-log", "--root", "x"], "--root is no option of boot-log"),
            (["--ca", "x", "boot-log"], "--ca, --cert and --key are given together.*"),
            (["--server-name", "x", "boot-log"], "--server-name needs .*"),
            (["boot\nlog\x1b"], r'unknown command "boot\\x0alog\\x1b"'),
        ]
        for arguments, words in cases:
            with self.subTest(arguments=arguments):
                self.expect(run(None, *arguments), 2, words + r" \(see attestctl --help\)", "")

    def test_help_names_every_command(self):
        whole = run(None, "--help")
        self.expect(whole, 0)
        for command in [*COMMANDS.values(), ["attest"]]:
            self.assertIn(f"  {command[0]} ", whole.stdout.decode())
            for option in command[1:2]:
                self.assertIn(option, run(None, command[0], "--help").stdout.decode())
        self.assertRegex(run(None, "--version").stdout.decode(), r"\Aattestctl \d+\.\d+\.\d+\n\Z")


class Tls(Program):
    @classmethod
    def setUpClass(cls):
        cls.folder = cls.enterClassContext(tempfile.TemporaryDirectory())
        by_ca = ("-CA", "ca.pem", "-CAkey", "ca.key")
        for name, issuer in (("ca", ()), ("other", ()), ("node", by_ca), ("verifier", by_ca)):
            cls.certificate(name, "-addext", f"subjectAltName=DNS:{name}.example", "-keyout", f"{name}.key",
                            "-out", f"{name}.pem", *issuer)

    @classmethod
    def certificate(cls, name, *arguments):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-utf8", "-subj", f"/CN={name}", *arguments], cwd=cls.folder, check=True, capture_output=True)

    @classmethod
    def read(cls, name):
        with open(f"{cls.folder}/{name}", "rb") as file:
            return file.read()

    def node(self):
        credentials = grpc.ssl_server_credentials([(self.read("node.key"), self.read("node.pem"))],
                                                  self.read("ca.pem"), require_client_auth=True)
        return FakeNode({BOOT_LOG: boot_log([])}, credentials)

    def ask(self, target, ca="ca.pem", cert="verifier.pem", key="verifier.key", name="node.example"):
        tls = ["--ca", ca, "--cert", cert, "--key", key] + (["--server-name", name] if name else [])
        return run(target, *tls, "boot-log", cwd=self.folder)

    def test_each_side_must_know_the_other(self):
        with self.node() as node:
            self.expect(self.ask(node.target), 0)
            refused = f"cannot reach {node.target}: .+"
            self.expect(self.ask(node.target, ca="other.pem"), 2, refused)
            self.expect(self.ask(node.target, name="stranger.example"), 2, refused)
            self.expect(self.ask(node.target, name=None), 2, refused)
            self.expect(self.ask(node.target, cert="other.pem", key="other.key"), 2, f"({refused}|.*UNAVAILABLE.*)")
            self.expect(self.ask(node.target, key="other.key"), 2, ".+")
            self.expect(run(node.target, "boot-log"), 2, f"({refused}|.*UNAVAILABLE.*)")

    def test_certificates_are_shown_in_words(self):
        self.certificate("caf\u00e9\x1b[2J", "-keyout", "/dev/null", "-out", "c.der", "-outform", "DER")
        entry = api.CERTIFICATE_ENTRY(name="Kestrin AIK", data=self.read("c.der"))
        record = api.SystemCertificates(node_name="n", certs=[entry])
        answer = api.get_certificate_response(node_data=[record])
        with FakeNode({"GetCertificate": answer}) as node:
            done = run(node.target, "certificate")
        self.expect(done, 1)
        fingerprint = hashlib.sha256(entry.data).hexdigest()
        self.assertRegex(done.stdout.decode(), r"subject  CN=caf\u00e9\\1B\[2J\n")
        self.assertIn(f"sha256   {fingerprint}\n  no signature\n", done.stdout.decode())

    def test_files_that_are_none(self):
        self.expect(self.ask("127.0.0.1:1", ca="absent"), 2, "cannot read absent: No such file or directory")
        self.expect(self.ask("127.0.0.1:1", key="."), 2, r"cannot read \.: Is a directory")
        self.expect(self.ask("127.0.0.1:1", cert="/dev/null"), 2, "/dev/null is no PEM file")
        self.expect(self.ask("127.0.0.1:1", cert="/dev/zero"), 2, "/dev/zero is larger than 1 MiB")


if __name__ == "__main__":
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    unittest.main()
