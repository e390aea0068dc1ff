"""The node's software TPM: swtpm, at a socket that serves one connection at a time."""
import os
import socket
import struct
import subprocess
import time

from failure import NODE_FAILED, Failure
from layout import TPM_SOCKET, WITHOUT_CAPABILITIES

START_LIMIT_S = 60

TPM_ST_NO_SESSIONS = 0x8001
TPM_CC_SELF_TEST = 0x143
TPM_CC_SHUTDOWN = 0x145
TPM_SU_CLEAR = 0


def start(state):
    """Powers the TPM on, its state in the directory `state`/tpm; returns its process once it answers."""
    log = f"{state}/tpm.log"
    tpm = subprocess.Popen(
        [*WITHOUT_CAPABILITIES, "swtpm", "socket", "--tpm2", "--tpmstate", f"dir={state}/tpm,mode=0600",
         "--server", f"type=unixio,path={TPM_SOCKET},mode=0600",
         "--ctrl", f"type=unixio,path={TPM_SOCKET}.ctrl,mode=0600",
         "--flags", "not-need-init,startup-clear", "--log", f"file={log},truncate"],
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=open(f"{state}/tpm.stderr", "wb"),
        start_new_session=True)
    deadline = time.monotonic() + START_LIMIT_S
    while tpm.poll() is None and time.monotonic() < deadline:
        try:
            if command(TPM_CC_SELF_TEST, b"\x01")[0] == 0:
                os.unlink(f"{state}/tpm.stderr")
                return tpm
        except OSError:
            pass
        time.sleep(0.01)
    tpm.kill()
    said = "".join(open(name, encoding="utf-8", errors="replace").read() for name in (f"{state}/tpm.stderr", log)
                   if os.path.exists(name))
    raise Failure(f"the software TPM did not start: {said.strip() or 'no message'}", NODE_FAILED)


def stop(tpm):
    """Powers the TPM off in the orderly way, so that it does not count the next start as a lost power supply."""
    try:
        command(TPM_CC_SHUTDOWN, struct.pack(">H", TPM_SU_CLEAR))
    except OSError:
        pass
    tpm.terminate()
    try:
        tpm.wait(5)
    except subprocess.TimeoutExpired:
        tpm.kill()


def command(code, parameters):
    """One TPM command without sessions: the response code and what follows it."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(5)
        connection.connect(TPM_SOCKET)
        connection.sendall(struct.pack(">HII", TPM_ST_NO_SESSIONS, 10 + len(parameters), code) + parameters)
        answer = b""
        while len(answer) < 10 or len(answer) < struct.unpack(">I", answer[2:6])[0]:
            piece = connection.recv(4096)
            if not piece:
                raise ConnectionError("the TPM hung up")
            answer += piece
    return struct.unpack(">I", answer[6:10])[0], answer[10:]
