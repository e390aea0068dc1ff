"""The agent's process inside a node: started, watched, ended; any number of times within one boot.

A keeper process is the agent's parent and writes down how it ended, whoever started it and whoever is left.
"""
import json
import os
import signal
import subprocess
import time

from failure import NODE_FAILED, Failure
from layout import RUN_DIR, WITHOUT_CAPABILITIES

DESCRIPTION_FILE = f"{RUN_DIR}/agent.json"  # how the agent is started
PID_FILE = f"{RUN_DIR}/agent.pid"
ENDED_FILE = f"{RUN_DIR}/agent.ended"  # "exit status N" or "signal N"; not there while the agent runs
WANTED_FILE = f"{RUN_DIR}/agent.wanted"  # there while nobody asked for the agent's end

START_LIMIT_S = 60  # an instrumented build on a busy machine included
STOP_LIMIT_S = 20
DEFAULT_PORT = 50551
LISTENING = "0A"  # the state in /proc/net/tcp


def describe(program, cwd, log, environment):
    """Says how the agent is started from now on."""
    write_file(DESCRIPTION_FILE, json.dumps({"program": program, "cwd": cwd, "log": log, "environment": environment}))


def start(settings=(), wrapper=()):
    """Starts the agent and returns its pid once it listens. `settings` (NAME=VALUE) hold for this start only;
    the agent runs under the command `wrapper`, which is to become the agent by exec (strace -D does)."""
    if is_running():
        raise Failure(f"the agent runs already, pid {pid()}")
    description = json.loads(read_file(DESCRIPTION_FILE))
    environment = description["environment"] | dict(setting.split("=", 1) for setting in settings)
    remove_file(PID_FILE)
    remove_file(ENDED_FILE)
    reader, writer = os.pipe()
    starter = os.fork()
    if starter == 0:  # the keeper becomes the child of the sandbox's first process, which reaps it
        if os.fork() == 0:
            keep([*wrapper, description["program"]], description, environment, writer)
        os._exit(0)
    os.waitpid(starter, 0)
    os.close(writer)
    with os.fdopen(reader) as said:
        report = said.read()
    if report:
        raise Failure(f"the agent cannot be started: {report}", NODE_FAILED)
    write_file(WANTED_FILE, "")
    wait_until_listening(environment, description["log"])
    return pid()


def keep(argv, description, environment, report):
    """The keeper: never returns. What goes wrong before the agent runs is written to `report`."""
    try:
        os.setsid()
        log = os.open(description["log"], os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC, 0o600)
        log_start = os.lseek(log, 0, os.SEEK_END)
        null = os.open("/dev/null", os.O_RDWR)
        for target, source in ((0, null), (1, log), (2, log)):
            os.dup2(source, target)
        for inherited in (int(name) for name in os.listdir("/proc/self/fd")):
            if inherited > 2 and inherited != report:
                try:
                    os.close(inherited)
                except OSError:
                    pass  # the directory just listed
        write_file(f"{PID_FILE}.log", str(log_start))
        agent = subprocess.Popen([*WITHOUT_CAPABILITIES, *argv], cwd=description["cwd"], env=environment,
                                 preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        write_file(PID_FILE, str(agent.pid))
        os.close(report)
        status = agent.wait()
        write_file(ENDED_FILE, f"signal {-status}" if status < 0 else f"exit status {status}")
    except Exception as error:  # nobody above could do anything but report it
        os.write(report, str(error).encode())
    os._exit(0)


def wait_until_listening(environment, log):
    port = environment.get("ATTEST_PORT", "")
    port = int(port) if port.isdecimal() else DEFAULT_PORT
    deadline = time.monotonic() + START_LIMIT_S
    while not is_listening(port):
        if not is_running():
            raise Failure(f"the agent ended ({status()}) before it answered; {last_words(log)}", NODE_FAILED)
        if time.monotonic() > deadline:
            raise Failure(f"the agent does not listen on port {port} after {START_LIMIT_S} s; {last_words(log)}",
                          NODE_FAILED)
        time.sleep(0.01)


def is_listening(port):
    """Asks the kernel and not the port: the agent should not see a client that is none."""
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        if not os.path.exists(table):
            continue
        for line in read_file(table).splitlines()[1:]:
            _, local, _, state = line.split()[:4]
            if state == LISTENING and int(local.rsplit(":", 1)[1], 16) == port:
                return True
    return False


def last_words(log):
    """What the agent wrote since it was last started."""
    with open(log, "rb") as text:
        text.seek(int(read_file(f"{PID_FILE}.log")))
        said = text.read().decode(errors="replace").strip()
    return f"it said:\n{said}" if said else "it said nothing"


def stop():
    """SIGTERM, and waits for the end."""
    end(signal.SIGTERM)


def kill():
    """SIGKILL, and waits for the end."""
    end(signal.SIGKILL)


def end(number):
    if not is_running():
        raise Failure(f"the agent does not run: {status()}")
    remove_file(WANTED_FILE)
    try:
        os.kill(pid(), number)
    except ProcessLookupError:
        pass  # it has just ended by itself; its keeper is about to write that down
    deadline = time.monotonic() + STOP_LIMIT_S
    while is_running():
        if time.monotonic() > deadline:
            raise Failure(f"the agent still runs {STOP_LIMIT_S} s after signal {number}", NODE_FAILED)
        time.sleep(0.005)


def pid():
    return int(read_file(PID_FILE))


def is_running():
    return os.path.exists(PID_FILE) and not os.path.exists(ENDED_FILE)


def is_lost():
    """The agent has ended and nobody asked it to."""
    return os.path.exists(WANTED_FILE) and os.path.exists(ENDED_FILE)


def status():
    if is_running():
        return f"running, pid {pid()}"
    return read_file(ENDED_FILE) if os.path.exists(ENDED_FILE) else "never started"


def read_file(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write_file(path, text):
    """Whoever reads `path` sees the old text or the new one, never a part."""
    with open(f"{path}.new", "w", encoding="utf-8") as file:
        file.write(text)
    os.rename(f"{path}.new", path)


def remove_file(path):
    if os.path.exists(path):
        os.unlink(path)
