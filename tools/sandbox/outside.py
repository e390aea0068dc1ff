"""The sandbox around a node, built with bubblewrap: what of the machine is seen inside, and what is private."""
import contextlib
import fcntl
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

import bmc_node
from failure import Failure
from layout import (AGENT_PROGRAM, BMC_LOGIN, BMC_NODE_DIR, BMC_PROGRAM, BOOT_LOG, CAPABILITIES, CHECKOUT, DISK,
                    IMA_LOG, PYTHON)

INSIDE = f"{CHECKOUT}/tools/sandbox/inside.py"
NODE_FILE = "node.json"  # in the state directory while a node runs on it
STOP_LIMIT_S = 60  # of an orderly end; beyond it the sandbox is killed

# Of the machine's root these are not shown: the sandbox has its own.
PRIVATE = ("dev", "proc", "sys", "tmp", "run", DISK.strip("/"))


def run(options):
    """Starts the node, waits for its end and returns its exit status."""
    require_programs(["bwrap", "setpriv"] + ([] if options.no_tpm else ["swtpm"]))
    build = build_directory(options)
    logs = {BOOT_LOG: options.boot_log, IMA_LOG: options.ima_log}
    for log in filter(None, [*logs.values(), options.bmc_boot_log, options.bmc_ima_log]):
        require_file(log)
    listener = listen(options.publish) if options.publish else None
    state = prepare_state(options.state)
    try:
        with open(f"{state}/lock", "wb") as lock:
            take_lock(lock, state)
            with behind_bmc(options, state, build):
                return run_sandbox(options, state, build, logs, listener)
    finally:
        if not options.state:
            shutil.rmtree(state, ignore_errors=True)


def require_programs(programs):
    for program in programs:
        if not shutil.which(program):
            raise Failure(f"{program} is not installed; scripts/install-packages installs all that is needed")


def require_file(path):
    if not os.path.isfile(path):
        raise Failure(f"no such file: {path}")
    if not os.access(path, os.R_OK):
        raise Failure(f"not readable: {path}")


def build_directory(options):
    build = os.path.realpath(options.build or os.environ.get("ATTEST_BUILD_DIR") or f"{CHECKOUT}/build/release")
    if not os.access(f"{build}/{AGENT_PROGRAM}", os.X_OK):
        raise Failure(f"no agent in {build}: build it, or name another directory with --build")
    if options.bmc and not os.access(f"{build}/{BMC_PROGRAM}", os.X_OK):
        raise Failure("no BMC simulator in this build")
    if options.bmc and options.no_tpm:
        raise Failure("--bmc and --no-tpm exclude each other: a node logs in to its BMC with a key of its TPM")
    return build


def listen(place):
    return listen_at_file(place) if "/" in place else listen_at_port(place)


def listen_at_file(path):
    """Whatever the path's length: the kernel's is short."""
    directory, name = os.path.split(path)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        inside = os.open(directory, os.O_PATH | os.O_DIRECTORY)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        listener.bind(f"/proc/self/fd/{inside}/{name}")
        os.close(inside)
    except OSError as error:
        raise Failure(f"cannot publish at {path}: {error.strerror}") from None
    listener.listen()
    return listener


def listen_at_port(port):
    if not port.isdecimal() or int(port) > 65535:
        raise Failure(f"not a port: {port}")
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        listener.bind(("127.0.0.1", int(port)))
    except OSError as error:
        raise Failure(f"cannot publish at 127.0.0.1:{port}: {error.strerror}") from None
    listener.listen()
    return listener


def prepare_state(directory):
    state = os.path.realpath(directory) if directory else tempfile.mkdtemp(prefix="attest-node-")
    if directory:
        os.makedirs(state, exist_ok=True)
    for name in ("disk", "tpm", "work", "bmc_login"):
        os.makedirs(f"{state}/{name}", mode=0o700, exist_ok=True)
    return state


def take_lock(lock, state):
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        raise Failure(f"another node runs on {state}; --enter enters it") from None


@contextlib.contextmanager
def behind_bmc(options, state, build):
    """While it lasts, the node whose evidence the BMC gives runs; without a BMC there is none."""
    if not options.bmc:
        yield
        return
    node = bmc_node.start(f"{state}/bmc_node", build, options.bmc_boot_log or options.boot_log,
                          options.bmc_ima_log or options.ima_log)
    try:
        yield
    finally:
        bmc_node.stop(node)


def run_sandbox(options, state, build, logs, listener):
    control_inside, control = os.pipe()
    information, information_inside = os.pipe()
    passed = [control_inside, information_inside]
    published = published_name(options.publish, listener) if listener else None
    if listener:
        passed.append(listener.detach())
    configuration = {
        "state": state, "build": build, "tpm": not options.no_tpm, "agent": not options.no_agent,
        "bmc": {"fault": options.bmc_fault} if options.bmc else None, "command": options.command, "control": control_inside,
        "publish": passed[-1] if listener else None, "published": published,
    }
    arguments = [*sandbox_arguments(state, build, logs, options.bmc), "--info-fd", str(information_inside)]
    passed.append(arguments_file(arguments))
    argv = ["bwrap", "--args", str(passed[-1]), "--", PYTHON, INSIDE, "run", json.dumps(configuration)]
    interruption = Interruption(control, serving=not options.command)
    # An interrupt typed at the terminal is COMMAND's to take, or this process's when there is none.
    sandbox = subprocess.Popen(argv, pass_fds=passed, preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN))
    interruption.sandbox = sandbox
    for descriptor in passed:
        os.close(descriptor)
    try:
        with os.fdopen(information) as said:
            text = said.read()
        if text:
            with open(f"{state}/{NODE_FILE}", "w", encoding="utf-8") as file:
                file.write(text)
        status = sandbox.wait()
    finally:
        if os.path.exists(f"{state}/{NODE_FILE}"):
            os.unlink(f"{state}/{NODE_FILE}")
    if interruption.number and not interruption.serving:
        return 128 + interruption.number
    return 128 - status if status < 0 else status


def published_name(place, listener):
    """What attestctl's user, or whoever connects to the socket, has to know."""
    return f"unix:{place}" if listener.family == socket.AF_UNIX else "{}:{}".format(*listener.getsockname())


def arguments_file(arguments):
    """A descriptor from which bwrap reads its arguments: there are too many for a readable list of processes."""
    file = os.memfd_create("arguments")
    os.write(file, b"".join(os.fsencode(argument) + b"\0" for argument in arguments))
    os.lseek(file, 0, os.SEEK_SET)
    return file


class Interruption:
    """Turns the signals that end a node into its orderly end, and a late end into a prompt one."""

    def __init__(self, control, serving):
        self.control, self.serving, self.number, self.sandbox = control, serving, 0, None
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, self.take)
        signal.signal(signal.SIGALRM, lambda *_: self.sandbox and self.sandbox.kill())

    def take(self, number, _):
        if self.number or (number == signal.SIGINT and not self.serving):
            return
        self.number = number
        os.close(self.control)
        signal.alarm(STOP_LIMIT_S)


def sandbox_arguments(state, build, logs, bmc):
    arguments = ["--unshare-user", "--unshare-ipc", "--unshare-pid", "--unshare-net", "--unshare-uts",
                 "--uid", "0", "--gid", "0", "--hostname", "node", "--die-with-parent"]
    for capability in CAPABILITIES:
        arguments += ["--cap-add", capability]
    arguments += root_arguments()
    arguments += ["--proc", "/proc", "--dev", "/dev", "--tmpfs", "/dev/shm", "--tmpfs", "/tmp", "--tmpfs", "/run"]
    # The path exists only on kernels with securityfs; all of /sys/kernel gives way to have it everywhere.
    arguments += ["--ro-bind", "/sys", "/sys", "--tmpfs", "/sys/kernel"]
    for place, log in logs.items():
        arguments += ["--dir", os.path.dirname(place)]
        if log:
            arguments += ["--ro-bind", os.path.realpath(log), place]
    for directory in (CHECKOUT, build):
        arguments += ["--ro-bind", directory, directory]
    arguments += counters_arguments()
    directory = os.getcwd()
    if is_hidden(directory):
        arguments += ["--ro-bind", directory, directory]
    arguments += ["--bind", state, state, "--bind", f"{state}/disk", DISK]
    return arguments + (bmc_arguments(state) if bmc else []) + ["--chdir", directory]


def root_arguments():
    """The machine's root, read-only, on a root of the sandbox's own: so it can have DISK, which no machine has."""
    return shown("/", PRIVATE)


def counters_arguments():
    """A build that counts what of it is reached (scripts/coverage) writes that into its own directory."""
    counting = os.environ.get("ATTEST_COUNTERS")
    return ["--bind", counting, counting] if counting else []


def shown(directory, left_out):
    """What is in the directory, read-only, on one of the sandbox's own."""
    arguments = []
    for entry in sorted(os.scandir(directory), key=lambda entry: entry.name):
        if entry.name in left_out:
            continue
        if entry.is_symlink():
            arguments += ["--symlink", os.readlink(entry.path), entry.path]
        elif entry.is_dir():
            arguments += ["--ro-bind", entry.path, entry.path]
    return arguments


def bmc_arguments(state):
    """The client certificate where the agent looks for it, in a place that few machines have; and what the simulator
    needs of the node behind it."""
    directory, name = os.path.split(BMC_LOGIN)
    return ["--tmpfs", directory, *shown(directory, (name,)), "--ro-bind", f"{state}/bmc_login", BMC_LOGIN,
            "--remount-ro", directory, "--ro-bind", f"{state}/bmc_node", BMC_NODE_DIR]


def is_hidden(directory):
    """Below a place that the sandbox has of its own, and not that place itself."""
    top = directory.split("/")[1]
    return top in ("tmp", "run") and directory != f"/{top}"


def enter(options):
    """Runs COMMAND in the node that uses the state directory. Returns only when that cannot be done."""
    if not options.state:
        raise Failure("--enter needs the --state of a running node")
    require_programs(["nsenter", "setpriv"])
    try:
        with open(os.path.join(options.state, NODE_FILE), encoding="utf-8") as file:
            pid = json.load(file)["child-pid"]
    except (FileNotFoundError, ValueError, KeyError):
        raise Failure(f"no node runs on {options.state}") from None
    command = options.command or [os.environ.get("SHELL", "/bin/sh")]
    sys.stdout.flush()
    os.execvp("nsenter", ["nsenter", f"--target={pid}", "--user", "--preserve-credentials", "--mount", "--uts", "--ipc",
                          "--net", "--pid", "--wd=/", "--", PYTHON, INSIDE, "enter", os.getcwd(), *command])
