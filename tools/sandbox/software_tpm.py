"""The node's software TPM: swtpm, at a socket that serves one connection at a time."""
import os
import socket
import struct
import subprocess
import sys
import time

import measured_boot
import tpm_commands
from failure import NODE_FAILED, Failure
from layout import TPM_SOCKET, WITHOUT_CAPABILITIES

START_LIMIT_S = 60
CMD_SET_LOCALITY = 5


def start(state, boot_log):
    """Powers the TPM on, its state in the directory `state`/tpm, and starts it up from the locality that the boot log
    (a path, or None) tells of; returns its process."""
    locality = read_locality(boot_log)
    log = f"{state}/tpm.log"
    tpm = subprocess.Popen(
        [*WITHOUT_CAPABILITIES, "swtpm", "socket", "--tpm2", "--tpmstate", f"dir={state}/tpm,mode=0600",
         "--server", f"type=unixio,path={TPM_SOCKET},mode=0600",
         "--ctrl", f"type=unixio,path={TPM_SOCKET}.ctrl,mode=0600",
         "--flags", "not-need-init", "--log", f"file={log},truncate"],
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=open(f"{state}/tpm.stderr", "wb"),
        start_new_session=True)
    deadline = time.monotonic() + START_LIMIT_S
    while tpm.poll() is None and time.monotonic() < deadline:
        try:
            start_up(locality)
            os.unlink(f"{state}/tpm.stderr")
            return tpm
        except OSError:
            pass
        time.sleep(0.01)
    tpm.kill()
    said = "".join(open(name, encoding="utf-8", errors="replace").read() for name in (f"{state}/tpm.stderr", log)
                   if os.path.exists(name))
    raise Failure(f"the software TPM did not start: {said.strip() or 'no message'}", NODE_FAILED)


def read_locality(boot_log):
    if not boot_log or not os.path.exists(boot_log):
        return 0
    with open(boot_log, "rb") as log:
        try:
            locality = measured_boot.startup_locality(log.read())
        except measured_boot.LogError:
            return 0  # extending the log will say what is wrong with it
    if locality not in (0, 3):
        raise Failure(f"{boot_log}: a start-up from locality {locality} needs a hardware root of trust")
    return locality


def start_up(locality):
    """TPM2_Startup as the firmware did it: its locality is PCR 0's first value."""
    set_locality(locality)
    code = command(tpm_commands.CC_STARTUP, struct.pack(">H", tpm_commands.SU_CLEAR))
    if code not in (0, tpm_commands.RC_INITIALIZE):
        raise Failure(f"the software TPM does not start up: response code 0x{code:x}", NODE_FAILED)
    set_locality(0)


def set_locality(locality):
    """By swtpm's control channel."""
    with socket.socket(socket.AF_UNIX) as control:
        control.settimeout(tpm_commands.ANSWER_LIMIT_S)
        control.connect(f"{TPM_SOCKET}.ctrl")
        control.sendall(struct.pack(">IB", CMD_SET_LOCALITY, locality))
        if control.recv(4) != bytes(4):
            raise Failure(f"the software TPM refuses locality {locality}", NODE_FAILED)


def stop(tpm):
    """Powers the TPM off in the orderly way, so that it does not count the next start as a lost power supply."""
    try:
        command(tpm_commands.CC_SHUTDOWN, struct.pack(">H", tpm_commands.SU_CLEAR))
    except OSError:
        pass
    tpm.terminate()
    try:
        tpm.wait(5)
    except subprocess.TimeoutExpired:
        tpm.kill()


def command(code, parameters):
    """One command by itself: the response code."""
    with tpm_commands.Connection(TPM_SOCKET) as tpm:
        return tpm.command(code, parameters)


def measure(boot_log, ima_log):
    """Extends what the logs (paths, or None) say was measured, as the boot that they come from did."""
    with tpm_commands.Connection(TPM_SOCKET) as tpm:
        for path, extends in ((boot_log, measured_boot.boot_extends), (ima_log, measured_boot.ima_extends)):
            if path and os.path.exists(path):
                with open(path, "rb") as log:
                    extend_all(tpm, path, extends(log.read()))


def extend_all(tpm, path, extends):
    """A log may be bad on purpose: what comes before the fault was measured."""
    try:
        for pcr, digests in extends:
            if digests:
                tpm.extend(pcr, digests)
    except measured_boot.LogError as error:
        print(f"tools/node: {path}: {error}; what follows is not in the TPM", file=sys.stderr)
