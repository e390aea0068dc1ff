"""--format with logs whose fields do not tell the file: one line, and nothing written."""
import hashlib
import os
import pty
import subprocess
import unittest

import remote_attestation_api_pb2 as api
from fake_node import BOOT_LOG, IMA_LOG, PROGRAM, STREAM, FakeNode, Program, run

SPEC_ID = b"Spec ID Event03\0" + bytes(7) + b"\2"


def spec_id(algorithms):
    listed = b"".join(number.to_bytes(2, "little") + size.to_bytes(2, "little") for number, size in algorithms)
    data = SPEC_ID + len(algorithms).to_bytes(4, "little") + listed + b"\0"
    return boot_event(1, 3, data, (0, bytes(20)))


def boot_event(number, event_type, data, *digests, pcr=0):
    return api.BOOT_EVENT(event_num=number, event_type=event_type, pcr_index=pcr, event_size=len(data),
                          event_data=data,
                          digests=[api.BOOT_EVENT_DIGEST(hash_alg=alg, digest=digest) for alg, digest in digests])


def boot_records(*logs):
    records = [api.NodeBootIntegrityLog(node_name=name, events=events) for name, events in logs]
    return api.get_platform_boot_integrity_event_logs_response(node_data=records)


def ima_event(number, name=b"/x", **more):
    field = b"\x28\0\0\0sha256:\0" + b"d" * 32 + (len(name) + 1).to_bytes(4, "little") + name + b"\0"
    made = {"event_num": number, "template_name": b"ima-ng", "event_name": name, "digest": b"d" * 32, "pcr": 10,
            "digest_algo": b"sha256", "template_hash": hashlib.sha1(field).digest(), **more}
    return api.IMA_EVENT(**{field: value for field, value in made.items() if value is not None})


def ima(*events, node="n"):
    return api.NodeIMAData(node_name=node, events=events)


class Formats(Program):
    def refused(self, answers, command, words, status=1):
        with FakeNode(answers) as node:
            for form in ("raw", "cel-json"):
                self.expect(run(node.target, *command, "--format", form), status, words, "")

    def test_boot_logs_that_the_fields_do_not_tell(self):
        sha256 = spec_id([(0x0B, 32)])
        good = boot_event(2, 4, b"data", (1, b"d" * 32))
        no_algorithm = "event 2 has a digest of which .* the algorithm"
        for log, words in (
                ([sha256, boot_event(2, 4, b"", (0, b"d" * 20))], no_algorithm),
                ([sha256, boot_event(2, 4, b"", (1, b"d" * 31))], no_algorithm),
                ([sha256, boot_event(2, 4, b"", (None, b"d" * 32))], no_algorithm),
                ([sha256, boot_event(2, 4, b"", (1, None))], no_algorithm),
                ([spec_id([(0x0012, 32), (0x0027, 32)]), boot_event(2, 4, b"", (0, b"d" * 32), (0, b"e" * 32))],
                 no_algorithm),
                ([boot_event(1, 4, SPEC_ID, (0, bytes(20)), pcr=1), good], no_algorithm),
                ([spec_id([(0x0B, 32), (0x04, 20)]), good], "event 2 has 1 digest"),
                ([sha256, boot_event(3, 4, b"", (1, b"d" * 32))], "event 2 has number 3"),
                ([sha256, api.BOOT_EVENT(event_num=2, pcr_index=0, event_type=4)], "event 2 has not the data .*"),
                ([sha256, api.BOOT_EVENT(event_num=2, event_type=4)], "event 2 has no type or no PCR"),
                ([sha256, api.BOOT_EVENT(event_num=2, pcr_index=0)], "event 2 has no type or no PCR"),
                ([spec_id([]), good], "its Spec ID event has no list of algorithms"),
                ([spec_id([(0x0B, 32)] * 17), good], "its Spec ID event has no list of algorithms"),
                ([boot_event(1, 3, SPEC_ID, (0, bytes(20)))], "its Spec ID event .*"),
                ([boot_event(1, 3, SPEC_ID + b"\2\0\0\0\x0b\0", (0, bytes(20)))], "its Spec ID event .*"),
                ([boot_event(1, 3, b"StartupLocality\0\3", (1, bytes(32)))], "event 1 has a digest of .*"),
                ([good], "event 1 .*")):
            with self.subTest(words, log=log):
                self.refused({BOOT_LOG: boot_records(("n", log))}, ["boot-log"],
                             f"the boot log cannot be written: {words}")

    def test_algorithms_that_the_contract_has_no_number_for_are_told_by_the_log(self):
        log = [spec_id([(0x0012, 32), (0x0B, 32)]), boot_event(2, 4, b"x", (0, b"s" * 32), (1, b"d" * 32))]
        with FakeNode({BOOT_LOG: boot_records(("n", log))}) as node:
            raw = run(node.target, "boot-log", "--format", "raw")
            cel = run(node.target, "boot-log", "--format", "cel-json")
        self.expect(raw, 0)
        self.assertTrue(raw.stdout.endswith(b"\x04\0\0\0\2\0\0\0\x12\0" + b"s" * 32 + b"\x0b\0" + b"d" * 32 +
                                            b"\1\0\0\0x"))
        self.assertIn(b'{"hashAlg":"sm3_256","digest":"' + b"73" * 32, cel.stdout)
        log = [spec_id([(0x0099, 16), (0x0B, 32)]), boot_event(2, 4, b"x", (0, b"u" * 16), (1, b"d" * 32))]
        with FakeNode({BOOT_LOG: boot_records(("n", log))}) as node:
            self.expect(run(node.target, "boot-log", "--format", "raw"), 0)
            self.expect(run(node.target, "boot-log", "--format", "cel-json"), 1,
                        ".* event 2 has a digest by algorithm 0x0099, for which there is no name", "")

    def test_ima_lists_that_the_fields_do_not_tell(self):
        good = ima_event(1)
        for event, words in (
                (ima_event(2, event_name=b"/y"), "event 2 .*: its template hash is not that of its fields"),
                (ima_event(2, template_hash=b"short"), "event 2 .*: it has no PCR or no template hash"),
                (ima_event(2, pcr=None), "event 2 .*: it has no PCR or no template hash"),
                (ima_event(2, digest=None), "event 2 .*: its fields are not all that template ima-ng has"),
                (ima_event(2, template_name=b"d-ng|n-ng|modsig"), "event 2 .*: its fields are not all .*"),
                (ima_event(2, template_name=b"x" * 256), "event 2 .*: it has no template's name"),
                (ima_event(2, template_name=None), "event 2 .*: it has no template's name"),
                (ima_event(3), ".*: event 3 came after 1"),
                (ima_event(0), ".*: event 0 came after 1")):
            with self.subTest(words):
                message = ima(good, event)
                self.refused({STREAM: [message], IMA_LOG: api.get_platform_ima_event_logs_response(
                    node_data=[message])}, ["ima-log"], words)
                self.refused({STREAM: [ima(good), ima(event)]}, ["ima-log", "--stream"], words)
        self.refused({STREAM: [ima(good), api.NodeIMAData()]}, ["ima-log", "--stream"], ".* ended the stream early")
        nameless = api.NodeIMAData(events=[ima_event(2)])
        self.refused({STREAM: [ima(good), nameless]}, ["ima-log", "--stream"], ".* ended the stream early")
        self.refused({STREAM: [ima(ima_event(2))]}, ["ima-log", "--stream"], ".*: event 2 came after 0")
        with FakeNode({STREAM: [ima(ima_event(2))]}) as node:
            self.expect(run(node.target, "ima-log", "--stream", "--start", "1", "--format", "raw"), 0)
        self.refused({}, ["ima-log"], ".* answered without evidence: no IMA list")
        self.refused({}, ["boot-log"], ".* answered without evidence: no boot log")

    def test_one_of_several_sources(self):
        logs = boot_records(("n", [boot_event(1, 4, b"a", (0, b"d" * 20))]),
                            ("n bmc", [boot_event(1, 4, b"b", (0, b"d" * 20))]))
        lists = [ima(ima_event(1, b"/of-bmc"), node="n bmc"), ima(ima_event(1)), ima(ima_event(2))]
        for command, answers in ((["boot-log"], {BOOT_LOG: logs}), (["ima-log", "--stream"], {STREAM: lists})):
            self.refused(answers, command, 'several sources answered, choose one with --source: "n.*", "n.*"', 2)
            self.refused(answers, [*command, "--source", "other"], '.* came from "other"')
            with FakeNode(answers) as node:
                sizes = [len(run(node.target, *command, "--format", "raw", "--source", name).stdout)
                         for name in ("n", "n bmc")]
            record = len(b"/of-bmc") - len(b"/x") + 89  # 28, 6 of the template's name, 4, and 51 of data
            self.assertEqual(sizes, [33, 33] if command == ["boot-log"] else [2 * 89, record])

    def test_command_lines(self):
        for options, words in ((["--format", "xml"], '--format must be cel-json or raw, not "xml".*'),
                               (["--format", "raw", "--json"], "--json and --format exclude each other.*"),
                               (["--source", "n"], "--source needs --format.*")):
            self.expect(run(None, "ima-log", *options), 2, words, "")
        controller, terminal = pty.openpty()
        done = subprocess.run([PROGRAM, "ima-log", "--format", "raw"], stdout=terminal, check=False,
                              stderr=subprocess.PIPE)
        os.close(terminal)
        os.close(controller)
        self.expect(done, 2, "--format raw is not for a terminal: redirect the output")


if __name__ == "__main__":
    unittest.main()
