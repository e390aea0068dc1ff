"""The node behind the BMC: a whole node, in a sandbox of its own, whose agent answers at a socket in its state
directory."""
import ctypes
import os
import signal
import subprocess
import sys

from failure import NODE_FAILED, Failure
from layout import BMC_NODE_SOCKET, CHECKOUT

STOP_LIMIT_S = 60
PR_SET_PDEATHSIG = 1
LIBC = ctypes.CDLL(None)


def start(state, build, boot_log, ima_log):
    """Starts the node, its state in the directory `state`, and returns its process once it serves."""
    os.makedirs(state, mode=0o700, exist_ok=True)
    logs = [argument for option, log in (("--boot-log", boot_log), ("--ima-log", ima_log)) if log
            for argument in (option, log)]
    # The caller's settings are those of the other agent.
    environment = {name: value for name, value in os.environ.items() if not name.startswith("ATTEST_")}
    with open(f"{state}/node.stderr", "wb") as complaints:
        node = subprocess.Popen([sys.executable, f"{CHECKOUT}/tools/node", "--state", state, "--build", build, *logs,
                                 "--publish", f"{state}/{BMC_NODE_SOCKET}"],
                                env=environment | {"ATTEST_NODE_NAME": "bmc"}, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=complaints, text=True, preexec_fn=end_with_its_node,
                                start_new_session=True)  # an interrupt at the terminal is not for it
    # It says a few lines when it serves, and never more: the pipe does not fill.
    if not any(line.startswith("published:") for line in node.stdout):
        node.wait()
        with open(f"{state}/node.stderr", encoding="utf-8", errors="replace") as said:
            raise Failure(f"the node behind the BMC: {said.read().strip() or 'no message'}", NODE_FAILED)
    return node


def end_with_its_node():
    """However that ends."""
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


def stop(node):
    node.terminate()
    try:
        node.wait(STOP_LIMIT_S)
    except subprocess.TimeoutExpired:
        node.kill()
        node.wait()
