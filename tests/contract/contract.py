"""The contract as protoc understands it, and as lines of its record."""
import pathlib
import subprocess
import sys
import tempfile

from google.protobuf import descriptor_pb2

SOURCE = pathlib.Path(__file__).resolve().parents[2]
PROTO = SOURCE / "api" / "remote_attestation_api.proto"
RECORD = SOURCE / "tests" / "contract" / "contract.record"

Field = descriptor_pb2.FieldDescriptorProto


def read_proto(proto=PROTO):
    """The file's descriptor."""
    with tempfile.NamedTemporaryFile() as out:
        subprocess.run(["protoc", f"--proto_path={proto.parent}", f"--descriptor_set_out={out.name}", str(proto)],
                       check=True)
        (file,) = descriptor_pb2.FileDescriptorSet.FromString(out.read()).file
    return file


def type_name(field):
    """As the .proto writes it, with "repeated" or "optional" before it."""
    plain = Field.Type.Name(field.type).removeprefix("TYPE_").lower()
    name = field.type_name.rpartition(".")[2] or plain
    label = "repeated " if field.label == Field.LABEL_REPEATED else "optional " if field.proto3_optional else ""
    return label + name


def fields(file):
    """(message, number, name, type) of every field, in the file's order."""
    for message in file.message_type:
        for field in message.field:
            yield message.name, field.number, field.name, type_name(field)


def record_lines(file):
    """Everything that a client which was generated from the contract has built in."""
    yield f"syntax {file.syntax}"
    yield f"package {file.package}"
    for service in file.service:
        for method in service.method:
            answer = ("stream " if method.server_streaming else "") + method.output_type.rpartition(".")[2]
            request = ("stream " if method.client_streaming else "") + method.input_type.rpartition(".")[2]
            yield f"rpc {service.name}.{method.name}({request}) returns ({answer})"
    for message, number, name, kind in fields(file):
        yield f"field {message} {number}: {kind} {name}"


def main():
    """Adds to the record what is new in the contract; what is recorded never changes."""
    lines = list(record_lines(read_proto()))
    recorded = RECORD.read_text().splitlines() if RECORD.exists() else []
    lost = [line for line in recorded if line not in lines]
    if lost:
        sys.exit("recorded, and no longer so in the contract:\n  " + "\n  ".join(lost))
    RECORD.write_text("".join(line + "\n" for line in lines))


if __name__ == "__main__":
    main()
