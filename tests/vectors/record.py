#!/usr/bin/python3
"""Records the vectors anew: tests/vectors/record.py, from a checkout with a release build.

A node (tools/node) with a software TPM is started on the first events of a recorded boot. It gets certificates that
never expire, and attestctl saves what it answers: the good set. A case is that set with one point changed; where the
change has to be signed to be that one point, the node has signed it (another chain, other PCRs). All keys are gone
with the node. Each case's verdict is written down here by hand and compared with attestctl's before it is kept.
"""
import copy
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

import grpc

import vectors

CHECKOUT = vectors.HERE.parents[1]
DATA = CHECKOUT / "tests" / "data"
EVENTS = 24  # of the recorded list; with the two violations at its end
PAIRS = {"VOXA": ("RSA_VOXACRT", "RSA_SCHAIN"), "AIK": ("RSA_AIK_CRT", "RSA_AIK_CHAIN")}
NEVER = "99991231235959Z"

SEQUENCE, SET, OID, BIT_STRING, OCTET_STRING, INTEGER, UTF8, UTC_TIME, TIME = (
    0x30, 0x31, 0x06, 0x03, 0x04, 0x02, 0x0C, 0x17, 0x18)
COMMON_NAME, CONSTRAINTS, KEY_USAGE = bytes.fromhex("550403"), bytes.fromhex("551d13"), bytes.fromhex("551d0f")
EXTENDED_USAGE, FOR_ATTESTATION = bytes.fromhex("551d25"), bytes.fromhex("6781050803")
ECDSA_WITH_SHA256 = bytes.fromhex("2a8648ce3d040302")
IS_CA, CERT_SIGN, DIGITAL_SIGNATURE = b"\1\1\xff", b"\2\4", b"\7\x80"


def openssl(*arguments, **more):
    return subprocess.run(["openssl", *arguments], check=True, capture_output=True, **more).stdout


def der(tag, *pieces):
    content = b"".join(pieces)
    size = len(content).to_bytes((len(content).bit_length() + 7) // 8, "big")
    length = bytes([len(content)]) if len(content) < 0x80 else bytes([0x80 | len(size)]) + size
    return bytes([tag]) + length + content


def certificate(subject, public_key, issuer, issuer_key, is_ca, end, extended_usage=b""):
    """`public_key` in DER: keys that only a TPM has cannot sign a request. Valid since 2020, whatever the clock says."""
    def name(text):
        return der(SEQUENCE, der(SET, der(SEQUENCE, der(OID, COMMON_NAME), der(UTF8, text.encode()))))

    def extension(kind, *value):
        return der(SEQUENCE, der(OID, kind), IS_CA, der(OCTET_STRING, *value))  # critical: the same bytes

    algorithm = der(SEQUENCE, der(OID, ECDSA_WITH_SHA256))
    dates = der(SEQUENCE, der(UTC_TIME, b"200101000000Z"), der(TIME if end == NEVER else UTC_TIME, end.encode()))
    extended = extension(EXTENDED_USAGE, der(SEQUENCE, der(OID, extended_usage))) if extended_usage else b""
    extensions = der(SEQUENCE, extended, extension(CONSTRAINTS, der(SEQUENCE, IS_CA if is_ca else b"")),
                     extension(KEY_USAGE, der(BIT_STRING, CERT_SIGN if is_ca else DIGITAL_SIGNATURE)))
    body = der(SEQUENCE, der(0xA0, der(INTEGER, b"\2")), der(INTEGER, b"\1" + os.urandom(8)), algorithm, name(issuer),
               dates, name(subject), public_key, der(0xA3, extensions))
    signature = openssl("dgst", "-sha256", "-sign", issuer_key, input=body)
    return der(SEQUENCE, body, algorithm, der(BIT_STRING, b"\0", signature))


class Authority:
    """A root and its issuing CA."""

    def __init__(self, name, end=NEVER):
        self.end, self.folder, self.name = end, tempfile.mkdtemp(), f"Vector {name} CA"
        root_key, self.key = f"{self.folder}/root.key", f"{self.folder}/issuing.key"
        public = []
        for key in (root_key, self.key):
            openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key)
            public.append(openssl("pkey", "-in", key, "-pubout", "-outform", "DER"))
        root = f"Vector {name} Root"
        self.root = certificate(root, public[0], root, root_key, True, end)
        self.chain = certificate(self.name, public[1], root, root_key, True, end) + self.root

    def certify(self, subject, public_key, extended_usage):
        return certificate(subject, public_key, self.name, self.key, False, self.end, extended_usage)

    def pem(self):
        return openssl("x509", "-inform", "DER", input=self.root)


class Node:
    """What is asked and changed inside the node."""

    def __init__(self, api):
        self.api = api
        manifest = pathlib.Path(os.environ["ATTEST_TRUST_ANCHOR"])
        objects = json.loads(manifest.read_text())["objects"]
        self.files = {name: manifest.parent / place["file"] for name, place in objects.items()}
        self.keys = {kind: self.public_key(self.files[place]) for kind, (place, _) in PAIRS.items()}

    @staticmethod
    def public_key(file):
        return openssl("pkey", "-pubin", "-outform", "DER",
                       input=openssl("x509", "-inform", "DER", "-in", str(file), "-noout", "-pubkey"))

    def give(self, kind, authority, key=None, extended_usage=None):
        """Puts a certificate and its chain in the place of the node's; it may be for the other key, or another use."""
        if extended_usage is None:
            extended_usage = FOR_ATTESTATION if kind == "AIK" else b""
        place, chain = PAIRS[kind]
        self.files[place].write_bytes(authority.certify(f"vector {kind}", self.keys[key or kind], extended_usage))
        self.files[chain].write_bytes(authority.chain)

    def ask(self, method, request, answer):
        subprocess.run(["node-agent", "restart"], check=True, capture_output=True)
        with grpc.insecure_channel(os.environ["NODE_ADDRESS"]) as channel:
            call = channel.unary_unary(f"/remote_attestation_api.RemoteAttestationApi/{method}",
                                       type(request).SerializeToString, answer.FromString)
            return call(request, timeout=30)

    def certificates(self, request):
        return self.ask("GetCertificate", request, self.api.get_certificate_response)

    def pcrs(self, request):
        return self.ask("AttestPcrs", request, self.api.attest_pcr_response)


def flip(data, at=-1):
    data = bytearray(data)
    data[at] ^= 1
    return bytes(data)


def renumber(events, first=1):
    for number, event in enumerate(events, first):
        event.event_num = number


class Cases:
    """Changes of a set; each gets a copy of the good one, and says what it makes of it."""

    def __init__(self, good, from_node):
        self.good, self.from_node, self.found = good, from_node, []

    def add(self, name, what, change, **expected):
        """`expected`: outcome of the checks that do not pass, "_" for a blank in their names."""
        changed = copy.deepcopy(self.good)
        change(changed)
        failing = {check.replace("_", " ").replace("ima", "IMA"): outcome for check, outcome in expected.items()}
        self.found.append((name, what, changed, failing))

    def answer(self, name, what, file, key, **expected):
        """One of the answers that the node signed."""
        self.add(name, what, lambda s: s.__setitem__(file, self.from_node[key]), **expected)


def certificate_cases(cases):
    def record(s, file="identity.response"):
        return s[file].node_data[0]

    def flip_field(field, file="identity.response"):
        return lambda s: setattr(record(s, file), field, flip(getattr(record(s, file), field)))

    def other_nonce(file):
        return lambda s: setattr(s[file], "nonce", flip(s[file].nonce))

    cases.add("identity-other-nonce", "the answer is to another nonce than the one in identity.request",
              other_nonce("identity.request"), identity_nonce="FAIL", identity_signature="FAIL")
    cases.add("identity-nonce-claimed", "the record's nonce is not the one that was sent, the signature is over that",
              flip_field("nonce"), identity_nonce="FAIL")
    cases.add("identity-signature", "a bit of the signature is flipped", flip_field("signature"),
              identity_signature="FAIL")
    cases.add("identity-algorithm", "sig_alg is not 2", lambda s: setattr(record(s), "sig_alg", 3),
              identity_signature="FAIL")
    cases.answer("identity-foreign-root", "a whole chain under a root that nobody trusts", "identity.response",
                 "foreign", identity_root="FAIL")
    cases.answer("identity-foreign-chain", "CA and root are not those that issued the certificate",
                 "identity.response", "mixed", identity_chain="FAIL")
    cases.answer("identity-expired", "certificates whose time is over", "identity.response", "expired",
                 identity_chain="FAIL", identity_root="FAIL")
    cases.add("identity-missing", "the answer has no record",
              lambda s: s["identity.response"].ClearField("node_data"), identity_certificates="FAIL",
              attestation_key_signature="not made")
    cases.answer("attestation-key-of-identity", "the certificate is for the device identity's key",
                 "attestation-key.response", "other key", attestation_key_certificates="FAIL",
                 attestation_key_chain="not made", quote_signature="not made", hardware_quote_signature="not made")
    cases.answer("attestation-key-of-any-use", "the certificate has no extended key usage for attestation",
                 "attestation-key.response", "any use", attestation_key_certificates="FAIL",
                 attestation_key_chain="not made", quote_signature="not made", hardware_quote_signature="not made")
    cases.add("attestation-key-signature", "a bit of the signature is flipped",
              flip_field("signature", "attestation-key.response"), attestation_key_signature="FAIL")
    cases.add("quote-other-nonce", "the quote is to another nonce than the one in pcrs.request",
              other_nonce("pcrs.request"), quote_nonce="FAIL")
    cases.add("hardware-quote-other-nonce", "the quote is to another nonce than the one in hw-integrity.request",
              other_nonce("hw-integrity.request"), hardware_quote_nonce="FAIL")


def quote_cases(cases):
    def record(s):
        return s["pcrs.response"].node_data[0]

    def set_quote(data):
        return lambda s: setattr(record(s), "quote", data(record(s).quote))

    def without_quote(s):
        record(s).ClearField("quote")
        record(s).ClearField("quote_signature")

    no_quote = {f"quote_{part}": "not made" for part in ("nonce", "selection", "digest")}
    cases.add("quote-missing", "the TPM refused to quote: PCR values alone", without_quote, quote_form="FAIL",
              quote_signature="FAIL", **no_quote)
    cases.add("quote-not-by-a-tpm", "the quote does not begin with TPM_GENERATED", set_quote(lambda q: flip(q, 3)),
              quote_form="FAIL", quote_signature="FAIL")
    cases.add("quote-cut", "the quote's last byte is missing", set_quote(lambda q: q[:-1]), quote_form="FAIL",
              quote_signature="FAIL", **no_quote)
    cases.add("quote-signature", "a bit of the signature is flipped",
              lambda s: setattr(record(s), "quote_signature", flip(record(s).quote_signature)),
              quote_signature="FAIL")
    cases.add("quote-value", "the value of PCR 23 is not the quoted one",
              lambda s: setattr(record(s).pcrs[23], "value", flip(record(s).pcrs[23].value)), quote_digest="FAIL")

    def other_selection(s):
        record(s).quote = cases.from_node["23 PCRs"].node_data[0].quote
        record(s).quote_signature = cases.from_node["23 PCRs"].node_data[0].quote_signature

    cases.add("quote-selection", "the quote is over fewer PCRs than were asked for", other_selection,
              quote_selection="FAIL")


def boot_log_cases(cases):
    def events(s):
        return s["boot-log.response"].node_data[0].events

    def change_digest(s):
        digest = next(d for d in events(s)[5].digests if d.hash_alg == 1)
        digest.digest = flip(digest.digest)

    def leave_out(s):
        del events(s)[5]
        renumber(events(s))

    def cut_data(s):
        events(s)[5].event_data = events(s)[5].event_data[:-1]

    cases.add("boot-log-digest", "a SHA-256 digest is not the one that was extended", change_digest,
              boot_log_replay="FAIL")
    cases.add("boot-log-event-missing", "an event is missing, and the others are numbered as if there were none",
              leave_out, boot_log_replay="FAIL")
    cases.add("boot-log-gap", "an event is missing", lambda s: events(s).pop(5), boot_log_events="FAIL",
              boot_log_replay="FAIL")
    cases.add("boot-log-data-cut", "an event has less data than it says", cut_data, boot_log_events="FAIL")
    cases.add("boot-log-empty", "a record without events", lambda s: s["boot-log.response"].node_data[0].ClearField(
        "events"), boot_log_events="FAIL", boot_log_replay="FAIL")


def ima_cases(cases):
    def events(s):
        return s[vectors.IMA_LOG][0].events

    def violation(s):
        return next(event for event in events(s) if not any(event.template_hash))

    def swap(s):
        fifth = copy.deepcopy(events(s)[4])
        events(s)[4].CopyFrom(events(s)[5])
        events(s)[5].CopyFrom(fifth)
        renumber(events(s))

    def grow(s):
        events(s).append(copy.deepcopy(events(s)[1]))
        renumber(events(s))

    cases.add("ima-grown", "an event came after the quote: the list verifies up to the quoted value", grow)
    cases.add("ima-name", "a file's name is changed", lambda s: setattr(events(s)[3], "event_name", b"/bin/harmless"),
              ima_list_hashes="FAIL", ima_list_replay="FAIL")
    cases.add("ima-signature", "a file's signature is left out", lambda s: next(
        event for event in events(s) if event.signature).ClearField("signature"), ima_list_hashes="FAIL",
              ima_list_replay="FAIL")
    cases.add("ima-template-hash", "a template hash is not that of the event's fields", lambda s: setattr(
        events(s)[3], "template_hash", flip(events(s)[3].template_hash)), ima_list_hashes="FAIL")
    cases.add("ima-order", "two events have changed places", swap, ima_list_replay="FAIL")
    cases.add("ima-gap", "an event is missing", lambda s: events(s).pop(3), ima_list_numbers="FAIL",
              ima_list_replay="FAIL")
    cases.add("ima-cut", "the last event is missing", lambda s: events(s).pop(), ima_list_replay="FAIL")
    cases.add("ima-violation-hidden", "a violation passes for a measurement", lambda s: setattr(
        violation(s), "template_hash", b"\1" * 20), ima_list_hashes="FAIL", ima_list_replay="FAIL")
    cases.add("ima-ended-early", "the node gave the stream up: its last message has no field", lambda s: s[
        vectors.IMA_LOG].append(type(s[vectors.IMA_LOG][0])()), ima_list="FAIL")
    cases.add("ima-missing", "no message came", lambda s: s[vectors.IMA_LOG].clear(), ima_list="FAIL",
              ima_list_numbers="FAIL")


def hardware_cases(cases):
    def record(s):
        return s["hw-integrity.response"].node_data[0]

    def change(*lists):
        def change_them(s):
            for one in lists:
                entry = getattr(record(s), one)[0]
                entry.digest = flip(entry.digest)
        return change_them

    cases.add("hardware-other-chip", "a chip is not the one that was recorded", change("uid_digests_db1"),
              hardware_identifiers="FAIL")
    cases.add("hardware-other-record", "what was recorded is not what PCR 15 was extended by",
              change("uid_digests_db0", "uid_digests_db1"), hardware_binding="FAIL")
    cases.add("hardware-chip-missing", "one chip less than was recorded",
              lambda s: record(s).uid_digests_db1.pop(), hardware_identifiers="FAIL")
    cases.add("hardware-quote-signature", "a bit of the signature is flipped",
              lambda s: setattr(record(s), "quote_signature", flip(record(s).quote_signature)),
              hardware_quote_signature="FAIL")
    cases.add("hardware-missing", "the answer has no record",
              lambda s: s["hw-integrity.response"].ClearField("node_data"), hardware_identifiers="FAIL")


def inside(out):
    """In the node: records the good set and all cases into `out`."""
    node = Node(vectors.load_contract())
    identity, attestation = Authority("identity"), Authority("attestation")
    node.give("VOXA", identity)
    node.give("AIK", attestation)
    subprocess.run(["node-agent", "start"], check=True, capture_output=True)
    (out / "roots.pem").write_bytes(identity.pem() + attestation.pem())
    subprocess.run(["attestctl", "attest", "--save", str(out / "good"), "--root", str(out / "roots.pem")], check=True,
                   capture_output=True)
    good = vectors.read_set(node.api, out / "good")

    request = good["identity.request"]
    from_node = {}
    for key, authority in (("foreign", Authority("stranger")), ("expired", Authority("old", "210101000000Z"))):
        node.give("VOXA", authority)
        from_node[key] = node.certificates(request)
    node.give("VOXA", identity)
    node.files[PAIRS["VOXA"][1]].write_bytes(attestation.chain)
    from_node["mixed"] = node.certificates(request)
    node.give("VOXA", identity)
    node.give("AIK", attestation, "VOXA")
    from_node["other key"] = node.certificates(good["attestation-key.request"])
    node.give("AIK", attestation, extended_usage=b"")
    from_node["any use"] = node.certificates(good["attestation-key.request"])
    fewer = copy.deepcopy(good["pcrs.request"])
    fewer.pcr_indices.pop()
    from_node["23 PCRs"] = node.pcrs(fewer)

    cases = Cases(good, from_node)
    for add in (certificate_cases, quote_cases, boot_log_cases, ima_cases, hardware_cases):
        add(cases)
    write(out, good, cases.found)


def write(out, good, found):
    unchanged = {name: vectors.encode(message) for name, message in good.items()}
    described = []
    for name, what, changed, failing in found:
        files = {file: vectors.encode(message) for file, message in changed.items()}
        differing = {file: data for file, data in files.items() if data != unchanged[file]}
        differing[vectors.SUMS] = vectors.sums_of({**files})
        folder = out / "cases" / name
        folder.mkdir(parents=True)
        for file, data in differing.items():
            (folder / file).write_bytes(data)
        described.append({"name": name, "what": what, "files": sorted(differing), "verified": not failing,
                          "not_passed": failing})
    whole = {"roots": "roots.pem", "good": {"verified": True, "not_passed": {}}, "cases": described}
    (out / "vectors.json").write_text(json.dumps(whole, indent=2) + "\n")


def short_list():
    """The first events of the recorded list, and its violations."""
    log, at, records = (DATA / "recorded-b-ima.bin").read_bytes(), 0, []
    while at < len(log):
        begin = at
        at += 28 + int.from_bytes(log[at + 24:at + 28], "little")
        at += 4 + int.from_bytes(log[at:at + 4], "little")
        records.append(log[begin:at])
    return b"".join(records[:EVENTS] + [record for record in records[EVENTS:] if not any(record[4:24])])


def main():
    if "NODE_STATE" in os.environ:
        out = pathlib.Path(os.environ["NODE_STATE"]) / "vectors"
        out.mkdir()
        return inside(out)
    with tempfile.TemporaryDirectory() as state, tempfile.NamedTemporaryFile() as ima_log:
        ima_log.write(short_list())
        ima_log.flush()
        subprocess.run([CHECKOUT / "tools" / "node", "--state", state, "--no-agent", "--boot-log",
                        DATA / "recorded-b-boot.bin", "--ima-log", ima_log.name, "--", sys.executable, "-B", __file__],
                       check=True)
        for name in ("good", "cases"):
            shutil.rmtree(vectors.HERE / name, ignore_errors=True)
        shutil.copytree(f"{state}/vectors", vectors.HERE, dirs_exist_ok=True)
    return subprocess.run([sys.executable, "-B", vectors.HERE / "vectors_test.py"], check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
