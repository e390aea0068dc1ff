"""A server that answers what a test wants, and attestctl, the program, run against it."""

import contextlib
import fcntl
import os
import pty
import re
import struct
import subprocess
import tempfile
import termios
import threading
import unittest
from concurrent import futures

import grpc
import remote_attestation_api_pb2 as api

PROGRAM = os.environ["ATTESTCTL"]
DATA = os.environ["ATTEST_TEST_DATA"]
BOOT_LOG, IMA_LOG, STREAM = "GetPlatformBootIntegrityEventLogs", "GetPlatformImaEventLogs", "StreamPlatformImaEventLogs"
SERVICE = api.DESCRIPTOR.services_by_name["RemoteAttestationApi"]
METHODS = {  # of one answer: the classes of request and answer
    method.name: (getattr(api, method.input_type.name), getattr(api, method.output_type.name))
    for method in SERVICE.methods if method.name != STREAM
}
VERIFYING = ("GetCertificate", "AttestPcrs", "GetPlatformHwIntegrity")  # whose commands judge what came
COMMANDS = {
    "GetCertificate": ["certificate"],
    "AttestPcrs": ["pcrs", "--pcr", "0,7"],
    BOOT_LOG: ["boot-log"],
    "GetPlatformHwIntegrity": ["hw-integrity"],
    IMA_LOG: ["ima-log"],
    STREAM: ["ima-log", "--stream"],
}
# Everything that a terminal, a log reader or a line-wise tool could take for more than text.
HOSTILE = b"/a \x1b[2J\x07\r\nb\\x41\xff\xc0\xaf\xe2\x80\xae\xc2\x9b31m\xc3\xa9\x00\x7f\""
STEERING = re.compile("[\x00-\x09\x0b-\x1f\x7f-\x9f\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]")


class FakeNode:
    """answers: method -> its answer, as a message or as bytes, for the stream a list of them; or a function (request,
    context) that gives it. A method without one answers without evidence."""

    def __init__(self, answers, credentials=None):
        self.requests = []

        def handler(name, without_evidence):
            answer = answers.get(name, without_evidence)

            def handle(request, context):
                self.requests.append(request)
                return answer(request, context) if callable(answer) else answer

            return handle

        def stream(request, context):
            yield from handler(STREAM, [api.NodeIMAData()])(request, context)

        def encode(answer):
            return answer if isinstance(answer, bytes) else answer.SerializeToString()

        handlers = {
            name: grpc.unary_unary_rpc_method_handler(handler(name, answer()), request.FromString, encode)
            for name, (request, answer) in METHODS.items()
        }
        handlers[STREAM] = grpc.unary_stream_rpc_method_handler(
            stream, api.get_platform_ima_event_logs_request.FromString, encode
        )
        self.server = grpc.server(futures.ThreadPoolExecutor(4), options=[("grpc.max_send_message_length", -1)])
        self.server.add_generic_rpc_handlers((grpc.method_handlers_generic_handler(SERVICE.full_name, handlers),))
        port = (self.server.add_secure_port("127.0.0.1:0", credentials) if credentials
                else self.server.add_insecure_port("127.0.0.1:0"))
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
    return subprocess.run(command, capture_output=True, timeout=300, check=False, **more)


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
        BOOT_LOG: api.get_platform_boot_integrity_event_logs_response(node_data=[log]),
        "GetPlatformHwIntegrity": api.get_platform_hw_integrity_response(node_data=[hardware], nonce=b""),
        IMA_LOG: api.get_platform_ima_event_logs_response(node_data=[ima, ima], flags=1),
        STREAM: [ima],
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


@contextlib.contextmanager
def targets_file(*targets):
    """The path of a file for --targets."""
    with tempfile.NamedTemporaryFile("w") as file:
        file.write("\n".join(targets))
        file.flush()
        yield file.name


class Program(unittest.TestCase):
    maxDiff = None

    def expect(self, done, status, stderr="", stdout=None):
        """`stderr` is a regular expression for the one line that is said, empty for none."""
        words = done.stderr.decode()
        self.assertEqual(done.returncode, status, words)
        self.assertRegex(words, rf"\Aattestctl: {stderr}\n\Z" if stderr else r"\A\Z")
        if stdout is not None:
            self.assertEqual(done.stdout.decode(), stdout)

    def run_in_terminal(self, stream, *arguments, columns=0, look=lambda seen: None):
        """attestctl with `stream` on a terminal and the other output nowhere: its exit status and what the terminal
        was given. `look` is shown that as it grows."""
        ours, terminal = pty.openpty()
        try:
            fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            outputs = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, stream: terminal}
            with subprocess.Popen([PROGRAM, *arguments], **outputs) as child:
                os.close(terminal)
                seen = b""
                with contextlib.suppress(OSError):  # the terminal's end
                    while piece := os.read(ours, 4096):
                        seen += piece
                        look(seen)
                return child.wait(30), seen.decode()
        finally:
            os.close(ours)
