"""attestctl, the program, against a server that answers what each test wants."""

import contextlib
import fcntl
import hashlib
import json
import os
import pty
import re
import resource
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import threading
import time
import unittest
from concurrent import futures

import grpc
import remote_attestation_api_pb2 as api

PROGRAM = os.environ["ATTESTCTL"]
DATA = os.environ["ATTEST_TEST_DATA"]
SERVICE = "remote_attestation_api.RemoteAttestationApi"
METHODS = {
    "GetCertificate": (api.get_certificate_request, api.get_certificate_response),
    "AttestPcrs": (api.attest_pcr_request, api.attest_pcr_response),
    "GetPlatformBootIntegrityEventLogs": (
        api.get_platform_boot_integrity_event_logs_request,
        api.get_platform_boot_integrity_event_logs_response,
    ),
    "GetPlatformHwIntegrity": (api.get_platform_hw_integrity_request, api.get_platform_hw_integrity_response),
    "GetPlatformImaEventLogs": (api.get_platform_ima_event_logs_request, api.get_platform_ima_event_logs_response),
}
STREAM = "StreamPlatformImaEventLogs"
VERIFYING = ("GetCertificate", "AttestPcrs", "GetPlatformHwIntegrity")  # whose commands judge what came
COMMANDS = {
    "GetCertificate": ["certificate"],
    "AttestPcrs": ["pcrs", "--pcr", "0,7"],
    "GetPlatformBootIntegrityEventLogs": ["boot-log"],
    "GetPlatformHwIntegrity": ["hw-integrity"],
    "GetPlatformImaEventLogs": ["ima-log"],
    STREAM: ["ima-log", "--stream"],
}
# Everything that a terminal, a log reader or a line-wise tool could take for more than text.
HOSTILE = b"/a \x1b[2J\x07\r\nb\\x41\xff\xc0\xaf\xe2\x80\xae\xc2\x9b31m\xc3\xa9\x00\x7f\""
STEERING = re.compile("[\x00-\x09\x0b-\x1f\x7f-\x9f\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]")


class FakeNode:
    """answers: method -> function (request, context) -> answer; a method without one answers without evidence."""

    def __init__(self, answers, credentials=None):
        self.requests = []

        def handler(name, answer_type):
            def handle(request, context):
                self.requests.append(request)
                return answers[name](request, context) if name in answers else answer_type()

            return handle

        def stream(request, context):
            self.requests.append(request)
            yield from answers.get(STREAM, lambda r, c: [api.NodeIMAData()])(request, context)

        def encode(answer):
            return answer if isinstance(answer, bytes) else answer.SerializeToString()

        handlers = {
            name: grpc.unary_unary_rpc_method_handler(handler(name, answer), request.FromString, encode)
            for name, (request, answer) in METHODS.items()
        }
        handlers[STREAM] = grpc.unary_stream_rpc_method_handler(
            stream, api.get_platform_ima_event_logs_request.FromString, encode
        )
        self.server = grpc.server(futures.ThreadPoolExecutor(4), options=[("grpc.max_send_message_length", -1)])
        self.server.add_generic_rpc_handlers((grpc.method_handlers_generic_handler(SERVICE, handlers),))
        port = (
            self.server.add_secure_port("127.0.0.1:0", credentials)
            if credentials
            else self.server.add_insecure_port("127.0.0.1:0")
        )
        self.target = f"127.0.0.1:{port}"

    def __enter__(self):
        self.server.start()
        return self

    def __exit__(self, *_):
        self.server.stop(0).wait()


def say_nothing(_, context):
    """A handler that is silent until its client has gone."""
    gone = threading.Event()
    if context.add_callback(gone.set):
        gone.wait(60)
    return b""


def run(target, *arguments, **more):
    command = [PROGRAM] + (["--target", target] if target else []) + list(arguments)
    return subprocess.run(command, capture_output=True, timeout=60, check=False, **more)


def boot_events(recorded="recorded-a"):
    """The recorded boot log in the terms of the contract: one SHA-1 record, then records with two digests."""
    with open(f"{DATA}/{recorded}-boot.bin", "rb") as file:
        log = file.read()
    algorithms = {0x04: (0, 20), 0x0B: (1, 32)}
    at = 0

    def take(size):
        nonlocal at
        at += size
        return log[at - size : at]

    def number(size):
        return int.from_bytes(take(size), "little")

    events = []
    while at < len(log):
        event = api.BOOT_EVENT(event_num=len(events) + 1, pcr_index=number(4), event_type=number(4))
        if not events:
            event.digests.add(hash_alg=0, digest=take(20))
        else:
            for _ in range(number(4)):
                hash_alg, size = algorithms[number(2)]
                event.digests.add(hash_alg=hash_alg, digest=take(size))
        event.event_size = number(4)
        event.event_data = take(event.event_size)
        events.append(event)
    return events


def boot_log(events):
    log = api.NodeBootIntegrityLog(node_name="rack1", events=events, uptime=5)
    return api.get_platform_boot_integrity_event_logs_response(node_data=[log], flags=1)


def ima_events(first, count, name=b"/usr/bin/true", **more):
    return [
        api.IMA_EVENT(
            event_num=n, template_name=b"ima-ng", event_name=name, digest=b"d" * 32, digest_algo=b"sha256",
            template_hash=b"t" * 20, pcr=10, duplicate=0, **more,
        )
        for n in range(first, first + count)
    ]


def ima_record(first, count, **more):
    return api.NodeIMAData(node_name="rack1", events=ima_events(first, count, **more), uptime=9)


def hostile_answers():
    """One answer a method, hostile bytes wherever bytes can be; two of them with two sources."""
    text = HOSTILE.decode("utf-8", "ignore")
    certificates = api.SystemCertificates(
        node_name=text, nonce=HOSTILE, sig_alg=2, signature=HOSTILE,
        certs=[api.CERTIFICATE_ENTRY(name=text, data=HOSTILE), api.CERTIFICATE_ENTRY()],
    )
    pcrs = api.NodePCRData(
        node_name=text, uptime=2**64 - 1, quote=HOSTILE, quote_signature=b"",
        pcrs=[api.PCR_DUMP(index=0, value=HOSTILE), api.PCR_DUMP(index=2**32 - 1)],
    )
    # Every event type that has a layout of its own, with data that is none.
    types = [*range(0x20), *(0x80000000 + i for i in range(0x12)), 0x800000E0, 0xFFFFFFFF]
    events = [api.BOOT_EVENT(event_type=t, event_size=1, event_data=HOSTILE) for t in types] + [api.BOOT_EVENT()]
    log = api.NodeBootIntegrityLog(node_name=text, events=events)
    hardware = api.tpm_hw_integrity(
        source_name=text, node_name=text, key_cert_name=text, quote=HOSTILE, sig_alg=1,
        uid_digests_db0=[api.UID_DIGEST(index=0, digest=HOSTILE)], uid_digests_db1=[api.UID_DIGEST(digest=b"x")],
    )
    event = api.IMA_EVENT(
        event_num=2**64 - 1, template_name=HOSTILE, event_name=HOSTILE, digest=HOSTILE, digest_algo=HOSTILE,
        template_hash=bytes(20), pcr=2**32 - 1, signature=HOSTILE, duplicate=1,
    )
    ima = api.NodeIMAData(node_name=text, events=[event, api.IMA_EVENT()], uptime=0)
    return {
        "GetCertificate": api.get_certificate_response(node_data=[certificates, certificates]),
        "AttestPcrs": api.attest_pcr_response(node_data=[pcrs], nonce=HOSTILE, flags=1),
        "GetPlatformBootIntegrityEventLogs": api.get_platform_boot_integrity_event_logs_response(node_data=[log]),
        "GetPlatformHwIntegrity": api.get_platform_hw_integrity_response(node_data=[hardware], nonce=b""),
        "GetPlatformImaEventLogs": api.get_platform_ima_event_logs_response(node_data=[ima, ima], flags=1),
        STREAM: ima,
    }


def as_functions(answers):
    return {
        name: (lambda r, c, a=answer: [a] if isinstance(a, api.NodeIMAData) else a)
        for name, answer in answers.items()
    }


def kernel_name(text):
    """The bytes behind a name of --json."""
    pieces = re.findall(r"\\\\|\\x[0-9a-f]{2}|[^\\]", text, re.DOTALL)
    assert "".join(pieces) == text, text
    return b"".join(
        b"\\" if p == "\\\\" else bytes.fromhex(p[2:]) if p.startswith("\\x") else p.encode() for p in pieces
    )


def from_json(value, message):
    """A message from an object of --json, through the descriptor alone."""
    for name, item in value.items():
        field = message.DESCRIPTOR.fields_by_name[name]
        if field.type == field.TYPE_MESSAGE:
            for element in item:
                from_json(element, getattr(message, name).add())
        elif field.type == field.TYPE_BYTES:
            kernel = name in ("event_name", "template_name", "digest_algo")
            setattr(message, name, kernel_name(item) if kernel else bytes.fromhex(item))
        else:
            setattr(message, name, item)
    return message


class Program(unittest.TestCase):
    maxDiff = None

    def expect(self, done, status, stderr="", stdout=None):
        """`stderr` is a regular expression for the one line that is said, empty for none."""
        words = done.stderr.decode()
        self.assertEqual(done.returncode, status, words)
        self.assertRegex(words, rf"\Aattestctl: {stderr}\n\Z" if stderr else r"\A\Z")
        if stdout is not None:
            self.assertEqual(done.stdout.decode(), stdout)


class Answers(Program):
    def test_boot_log_table_names_what_another_reader_finds(self):
        answer = boot_log(boot_events())
        with FakeNode({"GetPlatformBootIntegrityEventLogs": lambda r, c: answer}) as node:
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
        with FakeNode(as_functions(answers)) as node:
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
                answer = answers[method]
                self.assertEqual(from_json(json.loads(lines[0]), type(answer)()), answer)

    def test_hostile_text_never_reaches_a_terminal(self):
        with FakeNode(as_functions(hostile_answers())) as node:
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
        with FakeNode({"GetPlatformImaEventLogs": lambda r, c: answer}) as node:
            table = run(node.target, "ima-log").stdout.decode()
        self.assertEqual(re.findall(r"^ +(\d+) +10  (\S+)  ima-ng", table, re.MULTILINE),
                         [("1", "---"), ("2", "DV-"), ("3", "--S")])

    def test_huge_answer_is_taken(self):
        answer = api.get_platform_ima_event_logs_response(
            node_data=[ima_record(1, 20, signature=bytes(300_000))]
        )
        with FakeNode({"GetPlatformImaEventLogs": lambda r, c: answer}) as node:
            done = run(node.target, "ima-log", "--json")
        self.expect(done, 0)
        self.assertGreater(len(done.stdout), 12_000_000)


class Attest(Program):
    def test_hostile_evidence_is_not_verified(self):
        with FakeNode(as_functions(hostile_answers())) as node:
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
            main, side = pty.openpty()
            fcntl.ioctl(side, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            with subprocess.Popen([PROGRAM, "--target", node.target, "attest"], stdout=side) as child:
                os.close(side)
                seen = b""
                with contextlib.suppress(OSError):  # the terminal's end
                    while piece := os.read(main, 4096):
                        seen += piece
                self.assertEqual(child.wait(30), 1)
            os.close(main)
            return seen.decode().replace("\r\n", "\n")

        with FakeNode(as_functions(hostile_answers())) as node:
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

    def test_replay_gives_what_the_machine_and_another_reader_have(self):
        for recorded in ("recorded-a", "recorded-b"):
            with open(f"{DATA}/{recorded}-pcrs.json", "rb") as file:
                machine = {int(pcr): value for pcr, value in json.load(file)["sha256"].items()}
            listing = subprocess.run(
                ["tpm2_eventlog", f"{DATA}/{recorded}-boot.bin"], capture_output=True, check=True
            ).stdout.decode()
            other = {int(pcr): value for pcr, value in
                     re.findall(r"^    (\d+) *: 0x([0-9a-f]{64})$", listing, re.MULTILINE)}
            self.assertEqual(other, {pcr: machine[pcr] for pcr in (*range(8), 9)})
            events = boot_events(recorded)
            for wrong in (None, 0, 7, 9, 14):
                values = [api.PCR_DUMP(index=i, value=bytes.fromhex(machine[i])) for i in range(24)]
                if wrong is not None:
                    values[wrong].value = bytes(31) + b"\1"
                answers = {
                    "GetPlatformBootIntegrityEventLogs": boot_log(events),
                    "AttestPcrs": api.attest_pcr_response(node_data=[api.NodePCRData(node_name="rack1", pcrs=values)]),
                }
                with FakeNode(as_functions(answers)) as node:
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

    def test_rpc_error_in_one_line(self):
        def refuse(_, context):
            context.abort(grpc.StatusCode.RESOURCE_EXHAUSTED, "too\nbig \x1b[2J")

        with FakeNode({name: refuse for name in COMMANDS}) as node:
            for command in COMMANDS.values():
                done = run(node.target, *command)
                self.expect(done, 2, r".*: RESOURCE_EXHAUSTED: too\\x0abig \\x1b\[2J", "")

    def test_no_answer_in_time(self):
        with FakeNode({"GetCertificate": say_nothing}) as node:
            done = run(node.target, "certificate", "--timeout", "1.5")
        self.expect(done, 2, ".*: DEADLINE_EXCEEDED: no answer within 1.5 s")

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
        self.expect(done, 2, f"cannot reach {target}: no connection within 0.5 s")

    def test_unknown_host(self):
        self.expect(run("nowhere.invalid:1", "boot-log"), 2, "cannot reach nowhere.invalid:1: .+")

    def test_answer_that_is_no_message(self):
        no_utf8 = b"\x0a\x03\x0a\x01\xff\x12\x03\x0a\x01\xff"  # the first string of a record, as field 1 and 2
        for garbage in (b"\x0a\xff\xff\xff\xff\x0f", no_utf8):
            answers = {name: lambda r, c: garbage for name in METHODS}
            answers[STREAM] = lambda r, c: iter([ima_record(1, 2), garbage, ima_record(3, 2)])
            with FakeNode(answers) as node:
                for command in COMMANDS.values():
                    self.expect(run(node.target, *command), 2, ".*: the answer is no message of .*")

    def test_output_that_cannot_be_written(self):
        answers = {
            "GetPlatformBootIntegrityEventLogs": lambda r, c: boot_log(boot_events()),
            STREAM: lambda r, c: (ima_record(1 + 1000 * i, 1000) for i in range(3)),
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


class Stream(Program):
    def test_pieces_come_out_as_one_list(self):
        pieces = [ima_record(1, 1000), ima_record(1001, 1000), ima_record(2001, 5)]
        with FakeNode({STREAM: lambda r, c: iter(pieces)}) as node:
            table = run(node.target, "ima-log", "--stream")
            lines = run(node.target, "ima-log", "--stream", "--json")
        self.expect(table, 0)
        numbers = re.findall(r"^ +(\d+) +10", table.stdout.decode(), re.MULTILINE)
        self.assertEqual(numbers, [str(n) for n in range(1, 2006)])
        self.assertEqual(table.stdout.decode().count("node rack1"), 1)
        self.expect(lines, 0)
        records = [from_json(json.loads(x), api.NodeIMAData()) for x in lines.stdout.decode().splitlines()]
        self.assertEqual(records, pieces)

    def test_list_that_the_node_gave_up_is_no_success(self):
        with FakeNode({STREAM: lambda r, c: iter([ima_record(1, 1000), api.NodeIMAData()])}) as node:
            done = run(node.target, "ima-log", "--stream")
        self.expect(done, 1, ".* ended the stream early, after 1,000 events .*")

    def test_list_with_nothing_new_is_a_success(self):
        with FakeNode({STREAM: lambda r, c: iter([ima_record(1, 0)])}) as node:
            self.expect(run(node.target, "ima-log", "--stream", "--start", "9"), 0)

    def test_time_limit_is_for_each_message_and_not_for_all(self):
        def slowly(request, context):
            for i in range(4):
                yield ima_record(1 + i, 1)
                time.sleep(1)

        def stalls(request, context):
            yield ima_record(1, 1)
            say_nothing(request, context)

        with FakeNode({STREAM: slowly}) as node:
            self.expect(run(node.target, "--timeout", "3", "ima-log", "--stream"), 0)
        with FakeNode({STREAM: stalls}) as node:
            done = run(node.target, "--timeout", "2", "ima-log", "--stream")
        self.expect(done, 2, ".*: no message within 2 s, after 1 event .*")

    def test_interrupt_ends_it_and_says_what_came(self):
        gone = threading.Event()

        def endless(request, context):
            context.add_callback(gone.set)
            yield ima_record(1, 3)
            gone.wait(30)

        with FakeNode({STREAM: endless}) as node:
            command = [PROGRAM, "--target", node.target, "ima-log", "--stream", "--json"]
            with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as child:
                first = child.stdout.readline()
                child.send_signal(signal.SIGINT)
                words = child.stderr.read().decode()
                status = child.wait(30)
            self.assertTrue(gone.wait(10), "the node was not told")
        self.assertEqual(len(json.loads(first)["events"]), 3)
        self.assertEqual((status, words.split(",")[0]),
                         (130, "attestctl: interrupted after 3 events (the last is number 3) in 1 message"))

    def test_progress_is_for_terminals(self):
        proceed = threading.Event()

        def pieces(request, context):
            yield ima_record(1, 1000)
            proceed.wait(30)
            yield ima_record(1001, 10)

        main, side = pty.openpty()
        with FakeNode({STREAM: pieces}) as node:
            command = [PROGRAM, "--target", node.target, "ima-log", "--stream"]
            with subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=side) as child:
                os.close(side)
                seen = b""
                with contextlib.suppress(OSError):  # the terminal's end
                    while piece := os.read(main, 4096):
                        seen += piece
                        if b"1,000 events" in seen:
                            proceed.set()
                self.assertEqual(child.wait(30), 0)
        os.close(main)
        self.assertRegex(seen.decode(), r"\r\x1b\[K1,000 events, [\d,]+/s, 0\.\d MB")
        self.assertRegex(seen.decode(), r"\r\x1b\[Kattestctl: received 1,010 events .* in 2 messages.*\r\n\Z")

    def test_progress_of_many_nodes_is_for_terminals(self):
        main, side = pty.openpty()
        with FakeNode({}) as node, tempfile.NamedTemporaryFile() as targets:
            targets.write(f"{node.target}\n127.0.0.1:1\n".encode())
            targets.flush()
            with subprocess.Popen([PROGRAM, "attest", "--targets", targets.name, "--jobs", "1"],
                                  stdout=subprocess.DEVNULL, stderr=side) as child:
                os.close(side)
                seen = b""
                with contextlib.suppress(OSError):  # the terminal's end
                    while piece := os.read(main, 4096):
                        seen += piece
                self.assertEqual(child.wait(30), 1)
        os.close(main)
        last = r"\r\x1b\[K2 of 2 nodes: 0 verified, 1 not verified, 1 not asked to the end\r\x1b\[K\Z"
        self.assertRegex(seen.decode(), last)

    def test_one_of_many_nodes_may_not_send_as_much_as_it_likes(self):
        large = api.get_platform_boot_integrity_event_logs_response(
            node_data=[api.NodeBootIntegrityLog(events=[api.BOOT_EVENT(event_data=bytes(17 << 20))])])
        with FakeNode(as_functions({"GetPlatformBootIntegrityEventLogs": large})) as node, \
                tempfile.NamedTemporaryFile() as targets:
            targets.write(node.target.encode())
            targets.flush()
            done = run(None, "attest", "--targets", targets.name, "--json")
        boot_log = next(row for row in json.loads(done.stdout)["evidence"] if row["kind"] == "boot-log")
        self.assertFalse(boot_log["came"])
        self.assertIn("RESOURCE_EXHAUSTED", boot_log["text"])

    def test_list_does_not_pile_up_in_memory(self):
        message = ima_record(1, 1000, signature=bytes(1000))  # 1.15 MB on the wire
        sent = peak_kb = 0

        def pieces(request, context):
            nonlocal sent
            for sent in range(250):
                yield message

        with FakeNode({STREAM: pieces}) as node:
            command = [PROGRAM, "--target", node.target, "ima-log", "--stream"]
            environment = {**os.environ, "ASAN_OPTIONS": "quarantine_size_mb=4"}
            with subprocess.Popen(command, stdout=subprocess.PIPE, env=environment) as child:
                # As long as nobody reads the output the node must come to a halt.
                before = -1
                while sent == 0 or before != sent:
                    before = sent
                    time.sleep(0.5)
                self.assertLess(sent, 30)
                # A slow reader: gRPC's own estimate would let the node send ever more ahead of it.
                while child.stdout.read(1 << 16):
                    # Not from getrusage: that counts what this process had when it forked.
                    with open(f"/proc/{child.pid}/status", encoding="ascii") as file:
                        peak_kb = int((re.findall(r"VmHWM:\s+(\d+)", file.read()) or [peak_kb])[0])
                    time.sleep(0.005)
                self.assertEqual((child.wait(30), sent), (0, 249))
        self.assertLess(peak_kb, 80_000, "for a list of 290 MB")


class Tls(Program):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        for name in ("ca", "other"):
            cls.openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                        "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.pem")
        for name in ("node", "verifier"):
            cls.openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                        f"/CN={name}", "-addext", f"subjectAltName=DNS:{name}.example", "-keyout", f"{name}.key",
                        "-out", f"{name}.csr")
            cls.openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-days", "2",
                        "-copy_extensions", "copy", "-out", f"{name}.pem")

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    @classmethod
    def openssl(cls, *arguments):
        subprocess.run(["openssl", *arguments], cwd=cls.folder.name, check=True, capture_output=True)

    def node(self):
        def read(name):
            with open(f"{self.folder.name}/{name}", "rb") as file:
                return file.read()

        credentials = grpc.ssl_server_credentials(
            [(read("node.key"), read("node.pem"))], read("ca.pem"), require_client_auth=True
        )
        return FakeNode({"GetPlatformBootIntegrityEventLogs": lambda r, c: boot_log([])}, credentials)

    def ask(self, target, ca="ca.pem", cert="verifier.pem", key="verifier.key", name="node.example"):
        tls = ["--ca", ca, "--cert", cert, "--key", key] + (["--server-name", name] if name else [])
        return run(target, *tls, "boot-log", cwd=self.folder.name)

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
        self.openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                     "/CN=caf\u00e9\x1b[2J", "-utf8", "-keyout", "/dev/null", "-out", "c.der", "-outform", "DER")
        with open(f"{self.folder.name}/c.der", "rb") as file:
            entry = api.CERTIFICATE_ENTRY(name="Kestrin AIK", data=file.read())
        record = api.SystemCertificates(node_name="n", certs=[entry])
        answer = api.get_certificate_response(node_data=[record])
        with FakeNode({"GetCertificate": lambda r, c: answer}) as node:
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
