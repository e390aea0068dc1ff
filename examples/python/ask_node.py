#!/usr/bin/python3
"""Asks a node for a quote and its IMA list, and checks one against the other: ask_node.py HOST:PORT [ROOTS.pem]

The generated modules must be on PYTHONPATH, see examples/README.md."""
import hashlib
import os
import struct
import subprocess
import sys
import tempfile

import grpc
import remote_attestation_api_pb2 as api
import remote_attestation_api_pb2_grpc as api_grpc

TPM_GENERATED, ST_ATTEST_QUOTE = 0xFF544347, 0x8018
ALG_SHA256, ALG_RSASSA = 0x000B, 0x0014
IMA_PCR = 10
VIOLATION = bytes(20)
FIELDS = {"ima-ng": "d-ng|n-ng", "ima-sig": "d-ng|n-ng|sig"}


class NotGood(Exception):
    """Evidence that is missing, or is not what it should be."""


def require(condition, what):
    if not condition:
        raise NotGood(what)


def sha256(data):
    return hashlib.sha256(data).digest()


class Structure:
    """A structure of the TPM: numbers big-endian, bytes after their length."""

    def __init__(self, data):
        self.data = data

    def take(self, size):
        require(len(self.data) >= size, "a structure of the TPM is cut")
        taken, self.data = self.data[:size], self.data[size:]
        return taken

    def number(self, size):
        return int.from_bytes(self.take(size), "big")

    def sized(self):
        return self.take(self.number(2))


def check_quote(record, nonce, indices):
    """That TPMS_ATTEST is a quote of this nonce over these values."""
    require(record.HasField("quote") and record.HasField("quote_signature"), "no quote")
    require([pcr.index for pcr in record.pcrs] == indices, "not the PCRs that were asked for")
    attest = Structure(record.quote)
    require(attest.number(4) == TPM_GENERATED and attest.number(2) == ST_ATTEST_QUOTE, "no quote by a TPM")
    attest.sized()  # the key's qualified name
    require(attest.sized() == nonce, "the quote is to another nonce")
    attest.take(8 + 4 + 4 + 1 + 8)  # clock, reset count, restart count, safe; firmware's version
    require(attest.number(4) == 1 and attest.number(2) == ALG_SHA256, "not a quote of the SHA-256 bank")
    selected = attest.take(attest.number(1))
    numbers = [8 * byte + bit for byte, bits in enumerate(selected) for bit in range(8) if bits >> bit & 1]
    require(numbers == sorted(indices), "the quote is over other PCRs")
    values = {pcr.index: pcr.value for pcr in record.pcrs}
    require(attest.sized() == sha256(b"".join(values[number] for number in numbers)), "other values were quoted")
    require(not attest.data, "the quote is longer than a quote")
    return values


def openssl(*arguments, **more):
    return subprocess.run(["openssl", *arguments], capture_output=True, check=False, **more)


def pem(der):
    return openssl("x509", "-inform", "DER", input=der).stdout


def check_signature(record, certificates, nonce, roots):
    """That the key of the attestation certificate signed the quote, and that a trusted root vouches for it. A whole
    verifier also checks the signature over the certificates, by the device identity."""
    require(len(certificates.certs) == 3 and certificates.nonce == nonce, "not the certificates that were asked for")
    signature = Structure(record.quote_signature)
    require(signature.number(2) == ALG_RSASSA and signature.number(2) == ALG_SHA256, "an unknown kind of signature")
    with tempfile.TemporaryDirectory() as folder:
        files = {"signature": signature.sized(), "quote": record.quote}
        files |= {name: pem(entry.data) for name, entry in zip(("root", "ca", "device"), certificates.certs)}
        for name, data in files.items():
            with open(f"{folder}/{name}", "wb") as file:
                file.write(data)
        chain = openssl("verify", "-CAfile", roots or "root", "-untrusted", "ca", "device", cwd=folder)
        require(chain.returncode == 0, "nobody that is trusted vouches for the attestation key")
        key = openssl("x509", "-in", "device", "-noout", "-pubkey", "-out", "key", cwd=folder)
        signed = openssl("dgst", "-sha256", "-verify", "key", "-signature", "signature", "quote", cwd=folder)
        require(key.returncode == 0 and signed.returncode == 0, "the quote is not by the attestation key")


def template_data(event):
    """What the kernel hashed and extended, from the event's fields."""
    name = event.template_name.decode(errors="replace")
    if name == "ima":
        require(len(event.digest) == 20 and b"\0" not in event.event_name and not event.signature,
                f"event {event.event_num} is none of the template 'ima'")
        return event.digest + event.event_name.ljust(256, b"\0")
    parts = {"d-ng": event.digest_algo + b":\0" + event.digest, "n-ng": event.event_name + b"\0",
             "sig": event.signature}
    fields = FIELDS.get(name, name).split("|")
    # In another order the same bytes are other fields.
    require(fields in (["d-ng", "n-ng"], ["d-ng", "n-ng", "sig"]),
            f"event {event.event_num} has a template that is unknown here: {name!r}")
    require("sig" in fields or not event.signature, f"event {event.event_num} has a field that its template has not")
    return b"".join(struct.pack("<I", len(parts[field])) + parts[field] for field in fields)


def replay(messages, node_name, quoted):
    """Follows the list until PCR 10 has the quoted value; the number of events up to there and after it."""
    value, count, match, last = bytes(32), 0, None, None
    for last in messages:
        for event in last.events if last.node_name == node_name else ():
            count += 1
            require(event.event_num == count, f"event {count} is missing")
            data = template_data(event)
            if event.template_hash == VIOLATION:
                extended = b"\xff" * 32
            else:
                require(hashlib.sha1(data).digest() == event.template_hash, f"event {count} is not what was measured")
                extended = sha256(data)
            if event.pcr == IMA_PCR:
                value = sha256(value + extended)
                match = count if value == quoted else match
    # A node that gives a stream up ends it with a message without any field.
    require(last is not None and last.HasField("node_name"), "no whole IMA list")
    require(match is not None, "the list is not what the TPM saw")
    return match, count - match


def attest(node, roots):
    indices, nonce = list(range(24)), os.urandom(32)
    request = api.attest_pcr_request(pcr_indices=indices, nonce=nonce)
    quotes = node.AttestPcrs(request, timeout=30).node_data
    certificate_nonce = os.urandom(32)
    certificates = node.GetCertificate(
        api.get_certificate_request(cert_name="Kestrin AIK", nonce=certificate_nonce), timeout=30).node_data
    require(quotes and certificates, "no evidence")  # OK without records is none
    values = check_quote(quotes[0], nonce, indices)
    check_signature(quotes[0], certificates[0], certificate_nonce, roots)
    print(f"{quotes[0].node_name}: a quote of {len(values)} PCRs, by the key of {certificates[0].certs[2].name}"
          + ("" if roots else ", for which nobody vouches but the node"))
    messages = node.StreamPlatformImaEventLogs(api.get_platform_ima_event_logs_request())
    before, after = replay(messages, quotes[0].node_name, values[IMA_PCR])
    print(f"{quotes[0].node_name}: {before} events give the quoted PCR {IMA_PCR}, {after} came later")


def main(target, roots=None):
    # A whole list at once is more than the 4 MB that gRPC takes by itself.
    with grpc.insecure_channel(target, options=[("grpc.max_receive_message_length", -1)]) as channel:
        try:
            attest(api_grpc.RemoteAttestationApiStub(channel), roots and os.path.abspath(roots))
            return 0
        except NotGood as problem:
            print(problem)
            return 1
        except grpc.RpcError as error:
            print(f"the call failed: {error.details()}")
            return 2


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
