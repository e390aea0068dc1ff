"""What a test inside a node does with it: the agent, the verifier's command line, the debug trace."""
import importlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tools" / "sandbox"))
import agent_control  # noqa: E402

DATA = SOURCE / "tests" / "data"
BOOT_LOG = pathlib.Path("/sys/kernel/security/tpm0/binary_bios_measurements")
IMA_LOG = pathlib.Path("/sys/kernel/security/ima/binary_runtime_measurements")
AGENT_LOG = pathlib.Path(os.environ["NODE_STATE"]) / "agent.log"
CACHE = pathlib.Path("/harddisk:/ima")
AGENT = pathlib.Path(json.loads(agent_control.read_file(agent_control.DESCRIPTION_FILE))["program"])
BUILD = AGENT.parents[1]
INSTRUMENTED = "asan" in BUILD.name or "tsan" in BUILD.name


def load_contract():
    """The message classes that protoc makes of the contract."""
    out = tempfile.mkdtemp()
    subprocess.run(["protoc", f"--proto_path={SOURCE}/api", f"--python_out={out}", "remote_attestation_api.proto"],
                   check=True)
    sys.path.insert(0, out)
    return importlib.import_module("remote_attestation_api_pb2")


def agent(verb, *arguments, check=True):
    """node-agent VERB ...; what it printed."""
    done = subprocess.run(["node-agent", verb, *arguments], capture_output=True, text=True, check=False)
    if check and done.returncode != 0:
        raise AssertionError(f"node-agent {verb}: {done.stderr}")
    return done.stdout.strip()


def agent_pid():
    return int(agent("pid"))


def ensure_stopped():
    if agent("status").startswith("running"):
        agent("stop")


def restart(*settings):
    ensure_stopped()
    agent("start", *settings)


def forget_boot():
    """A reboot as far as the list, the table of repeats and the cache know; the agent is to be started."""
    ensure_stopped()
    subprocess.run(["rm", "-rf", CACHE], check=True)
    for kept in pathlib.Path("/dev/shm").iterdir():
        kept.unlink()
    subprocess.run(["ipcrm", "--all=sem"], check=True)
    IMA_LOG.parent.mkdir(parents=True, exist_ok=True)


def resident(pid):
    """Bytes of the process's own: the table of repeats is shared memory and as large as the list."""
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("RssAnon:"):
            return int(line.split()[1]) * 1024
    raise AssertionError("no RssAnon")


def agent_words():
    """Everything the agents of this node wrote to stderr."""
    return AGENT_LOG.read_text(errors="replace") if AGENT_LOG.exists() else ""


def attestctl(*arguments, timeout=300):
    return subprocess.run(["attestctl", *arguments], capture_output=True, text=True, timeout=timeout, check=False)


def ask(*arguments):
    """The one response message that attestctl gets, as a dictionary; the verdict on it is another line."""
    done = attestctl("--json", *arguments)
    return json.loads(done.stdout.splitlines()[0])


def trace(run_dir=None):
    """The texts of the debug trace, oldest first, further lines of a text joined to it."""
    where = ["--run-dir", run_dir] if run_dir else []
    dump = subprocess.run(["attest-trace", *where, "dump"], capture_output=True, text=True, check=True).stdout
    texts = []
    for line in dump.splitlines():
        begin = re.match(r"\S+ +\d+(?:/\d+)? +(.*)", line) if not line.startswith(" ") else None
        if begin:
            texts.append(begin.group(1))
        else:
            texts[-1] += "\n" + line.strip()
    return texts


def wait_for(condition, what, limit_s=30):
    """The bound is for a machine that is stuck, not a measure of speed."""
    deadline = time.monotonic() + limit_s
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"{what}: not within {limit_s} s")
        time.sleep(0.01)
