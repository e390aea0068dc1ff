"""The few TPM 2.0 commands that starting a node takes, over one connection to a software TPM."""
import socket
import struct

from failure import NODE_FAILED, Failure

ANSWER_LIMIT_S = 5

ST_NO_SESSIONS = 0x8001
ST_SESSIONS = 0x8002
CC_STARTUP = 0x144
CC_SHUTDOWN = 0x145
CC_PCR_EXTEND = 0x182
SU_CLEAR = 0
RC_INITIALIZE = 0x100  # it was started up already
EMPTY_PASSWORD = struct.pack(">IIHBH", 9, 0x40000009, 0, 0, 0)  # PCRs need no authorisation, but say so


class Connection:
    """swtpm serves one connection at a time: keep it no longer than the commands take."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(ANSWER_LIMIT_S)
        self.socket.connect(path)

    def __enter__(self):
        return self

    def __exit__(self, *ignored):
        self.socket.close()

    def command(self, code, parameters, tag=ST_NO_SESSIONS):
        """The response code."""
        self.socket.sendall(struct.pack(">HII", tag, 10 + len(parameters), code) + parameters)
        answer = b""
        while len(answer) < 10 or len(answer) < struct.unpack(">I", answer[2:6])[0]:
            piece = self.socket.recv(4096)
            if not piece:
                raise ConnectionError("the TPM hung up")
            answer += piece
        return struct.unpack(">I", answer[6:10])[0]

    def extend(self, pcr, digests):
        """Extends a PCR in every bank of `digests` (algorithm identifier to digest); banks that the TPM does not
        keep it leaves out by itself."""
        values = b"".join(struct.pack(">H", bank) + digest for bank, digest in digests.items())
        code = self.command(CC_PCR_EXTEND,
                            struct.pack(">I", pcr) + EMPTY_PASSWORD + struct.pack(">I", len(digests)) + values,
                            ST_SESSIONS)
        if code != 0:
            raise Failure(f"the TPM refuses to extend PCR {pcr}: response code 0x{code:x}", NODE_FAILED)
