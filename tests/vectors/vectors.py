"""Reading and writing the vectors: a whole set of evidence, and cases that say in which files they differ from it."""
import hashlib
import importlib
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile

from google.protobuf.internal import decoder, encoder

HERE = pathlib.Path(__file__).resolve().parent
PROTO = HERE.parents[1] / "api" / "remote_attestation_api.proto"
SUMS = "SHA256SUMS"
IMA_LOG = "ima-log.messages"
# The files of a set, in the order of its sums, and the messages in them.
FILES = {
    "identity.request": "get_certificate_request",
    "identity.response": "get_certificate_response",
    "attestation-key.request": "get_certificate_request",
    "attestation-key.response": "get_certificate_response",
    "pcrs.request": "attest_pcr_request",
    "pcrs.response": "attest_pcr_response",
    "boot-log.response": "get_platform_boot_integrity_event_logs_response",
    "hw-integrity.request": "get_platform_hw_integrity_request",
    "hw-integrity.response": "get_platform_hw_integrity_response",
    IMA_LOG: "NodeIMAData",
}


def load_contract():
    """The message classes that protoc makes of the contract."""
    out = tempfile.mkdtemp()
    subprocess.run(["protoc", f"--proto_path={PROTO.parent}", f"--python_out={out}", PROTO.name], check=True)
    sys.path.insert(0, out)
    api = importlib.import_module("remote_attestation_api_pb2")
    shutil.rmtree(out)
    return api


def read_set(api, directory):
    """{file: message}; of the IMA list a list of messages."""
    messages = {}
    for name, kind in FILES.items():
        data = (pathlib.Path(directory) / name).read_bytes()
        message = getattr(api, kind)
        messages[name] = read_delimited(message, data) if name == IMA_LOG else message.FromString(data)
    return messages


def read_delimited(message, data):
    found, at = [], 0
    while at < len(data):
        length, at = decoder._DecodeVarint32(data, at)
        found.append(message.FromString(data[at:at + length]))
        at += length
    return found


def encode(message):
    if not isinstance(message, list):
        return message.SerializeToString()
    pieces = [each.SerializeToString() for each in message]
    return b"".join(encoder._VarintBytes(len(piece)) + piece for piece in pieces)


def sums_of(files):
    """SHA256SUMS for {file: bytes}."""
    return "".join(f"{hashlib.sha256(files[name]).hexdigest()}  {name}\n" for name in FILES if name in files).encode()


def description():
    return json.loads((HERE / "vectors.json").read_text())


def write_case(case, directory):
    """Makes `directory` the evidence of a case: the good set, with the case's files over it."""
    shutil.copytree(HERE / "good", directory)
    for name in case["files"]:
        shutil.copyfile(HERE / "cases" / case["name"] / name, pathlib.Path(directory) / name)
