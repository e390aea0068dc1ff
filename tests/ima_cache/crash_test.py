#!/usr/bin/python3
"""Kills a working cache before its system calls and makes them fail, and looks what the next start makes of it.

usage: tests/support/own_machine crash_test.py DRIVER [SCENARIO ...]     (cache_driver.cc; default: all scenarios)

Without CACHE_CRASH_SWEEP=full in the environment it takes a sample of the points. One line a scenario says what was
tried. Exit status: 0, the cache was as it must be after each; 1, it was not.
"""
import array
import collections
import fcntl
import os
import random
import re
import shutil
import subprocess
import sys

DRIVER = sys.argv[1]
FULL = os.environ.get("CACHE_CRASH_SWEEP") == "full"
SAMPLE = {"kills": 8, "second kills": 3, "failures": 9, "limits": 2}  # of a scenario, when it is not all
SECOND_KILLS = 30  # of a scenario, of all: every point after every point would be too much
READS = 10  # of the calls that only read, how many are made to fail
META = "/dev/shm/ima_cache_meta"
ROOT = "/harddisk:/ima"
ERRORS = ("ENOSPC", "EIO", "EINTR", "EDQUOT", "EPERM")
GETFLAGS, SETFLAGS, IMMUTABLE = 0x80086601, 0x40086602, 0x10
NOT_OURS = ("exit_group", "execve")
NOT_SURVIVED = ("brk",)  # by the C library's own allocator
OUT_OF_MEMORY = re.compile("bad_alloc|AddressSanitizer failed|Failed to mmap")  # the driver, or what watches over it
TRACE = "/tmp/trace"
# A call that is interrupted for ever is taken up for ever: such a process is killed, like others.
FOR_EVER_S = 0.25
ENVIRONMENT = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}  # which cannot work in a traced process

random.seed(5)
failures = 0


def flags(path, change=None):
    """The file's flags, after `change` of them where this machine lets us."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        value = array.array("i", [0])
        fcntl.ioctl(descriptor, GETFLAGS, value)
        if change is not None and value[0] != change:
            fcntl.ioctl(descriptor, SETFLAGS, array.array("i", [change]))
        return value[0]
    except OSError:
        return 0
    finally:
        os.close(descriptor)


def files(directory):
    return [os.path.join(folder, name) for folder, _, names in os.walk(directory) for name in names]


def wipe():
    """What a reboot takes, and the disk."""
    for path in files(ROOT):
        flags(path, 0)
    shutil.rmtree(ROOT, ignore_errors=True)
    if os.path.exists(META):
        os.unlink(META)
    subprocess.run(["ipcrm", "--all=sem"], check=True)


class State:
    """A cache as it lies on the machine, to come back to."""

    def __init__(self, name):
        self.place = f"/tmp/{name}"
        self.immutable = [path for path in files(ROOT) if flags(path) & IMMUTABLE]
        self.meta = os.path.exists(META)
        shutil.copytree(ROOT, f"{self.place}/disk")
        if self.meta:
            shutil.copy(META, f"{self.place}/meta")

    def put_back(self):
        wipe()
        shutil.copytree(f"{self.place}/disk", ROOT)
        if self.meta:
            shutil.copy(f"{self.place}/meta", META)
        for path in self.immutable:
            flags(path, IMMUTABLE)


def drive(*command, under=(), limit=None):
    environment = {**ENVIRONMENT, "CACHE_FSIZE": limit} if limit else ENVIRONMENT
    if any(word.endswith("+") for word in (*under, limit or "")):
        environment = {**environment, "GCOV_PREFIX": "/tmp/lost"}  # a build that counts could not write it whole
    process = subprocess.Popen([*under, DRIVER, *map(str, command)], env=environment, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, start_new_session=True)
    try:
        said, _ = process.communicate(timeout=FOR_EVER_S if any("EINTR" in word and word.endswith("+")
                                                               for word in under) else 60)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, 9)
        said, _ = process.communicate()
    return process.returncode, said


def injected(call, number, what, for_ever=False):
    place = f"{call}:{what}:when={number}{'+' if for_ever else ''}"
    # With the filter no signal is ever sent.
    quicker = ["--seccomp-bpf"] if what.startswith("error=") else []
    return ["strace", "-f", *quicker, "-o", "/dev/null", "-e", f"trace={call}", "-e", f"inject={place}"]


def calls_of(*command):
    """The system calls of the work and those of reading it, as (name, its number among those of that name)."""
    drive(*command, under=["strace", "-f", "-o", TRACE])
    counts = collections.Counter()
    work, reading = [], []
    points = None
    with open(TRACE, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            call = re.match(r"\d+\s+(\w+)\(", line)
            if not call:
                continue
            if ".gcda" in line:  # a build that counts what it reaches, as it ends
                break
            counts[call[1]] += 1
            if "/the work begins" in line:
                points = work
            elif "/the work is done" in line:
                points = reading
            elif points is not None and call[1] not in NOT_OURS:
                points.append((call[1], counts[call[1]]))
    return work, reading


def sample(points, kind):
    points = list(points)
    return points if FULL or len(points) <= SAMPLE[kind] else random.sample(points, SAMPLE[kind])


def check(what, expected):
    global failures
    status, said = drive("check", *expected)
    if status != 0:
        failures += 1
        print(f"FAILED after {what}: {said.strip()}", flush=True)


def kill_before(name, call, number, target):
    global failures
    status, said = drive("work", target, under=injected(call, number, "signal=KILL"))
    if status != -9:  # strace ends as the driver did
        failures += 1
        print(f"FAILED, {name}: not killed before {call} {number}: status {status} {said.strip()}", flush=True)


def sweep(name, state, target, after_a_kill, after_a_failure):
    """Works up to `target` events from `state`, disturbed at each point in each way."""
    state.put_back()
    points, reading = calls_of("work", target)
    kills = sample(points, "kills")
    for call, number in kills:
        state.put_back()
        kill_before(name, call, number, target)
        check(f"{name}, killed before {call} {number}", after_a_kill)
    second = [random.choice(points) for _ in range(SECOND_KILLS if FULL else SAMPLE["second kills"])]
    for call, number in second:
        state.put_back()
        kill_before(name, call, number, target)
        half_way = State("half_way")
        again = random.choice(calls_of("work", target)[0])
        half_way.put_back()
        kill_before(name, *again, target)
        # The second one may have come while a cache that the first had cut back was filled again.
        check(f"{name}, killed before {call} {number}, then before {again}", range(min(after_a_kill), target + 1, 1000))
        shutil.rmtree(half_way.place)
    reading = random.sample(reading, min(READS, len(reading)))
    errors = sample([(call, number, error, ever) for call, number in points + reading for error in ERRORS
                     for ever in (False, True) if call not in NOT_SURVIVED], "failures")
    for call, number, error, ever in errors:
        disturb(f"{name}, {error} from {call} {number}{' for ever' if ever else ''}", state, target, ever,
                after_a_failure, under=injected(call, number, f"error={error}", ever))
    limits = sample([f"{size}{ever}" for size in (0, 1, 40, 88, 5000, 30000, 40000, 40001, 60000, 85000)
                     for ever in ("", "+")], "limits")
    for limit in limits:
        disturb(f"{name}, files limited to {limit}", state, target, limit.endswith("+"), after_a_failure, limit=limit)
    print(f"{name}: {len(points)} system calls; {len(kills)} kills, {len(second)} second kills, {len(errors)} failures, "
          f"{len(limits)} limits", flush=True)


def disturb(what, state, target, ever, expected, **how):
    """A process that meets failures must get through them when they end, and never serve anything wrong."""
    global failures
    state.put_back()
    status, said = drive("work", target, **how)
    if not OUT_OF_MEMORY.search(said) and (status == 1 or (status != 0 and not ever)):
        failures += 1
        print(f"FAILED, {what}: status {status} {said.strip()}", flush=True)
    check(what, expected)


def blocks():
    return sorted(path for path in files(ROOT) if "/ima_cache_" in path)


def damage():
    """A cache of blocks of which the second is corrupt, with a block that nobody expects and one half made."""
    first, second = blocks()[:2]
    flags(second, 0)
    with open(second, "r+b") as file:
        file.seek(500)
        file.write(b"?")
    for name in ("ima_cache_9", "new_block"):
        with open(f"{os.path.dirname(first)}/{name}", "wb"):
            pass


# What there is before, what happens to it, what there is to be in the end; what may be cached after a kill.
SCENARIOS = {
    "append": (4000, None, 5000, (3000, 4000, 5000)),
    "seal": (5000, None, 6000, (3000, 5000, 6000)),
    "new block": (3000, None, 4000, (3000, 4000)),
    "first start": (4000, lambda: os.unlink(META), 1000, (0, 1000)),
    "restart with repair": (10000, damage, 4000, (3000, 4000)),
}

for scenario in sys.argv[2:] or SCENARIOS:
    before, change, after, killed = SCENARIOS[scenario]
    wipe()
    os.makedirs(ROOT, mode=0o700)
    if drive("work", before) != (0, ""):
        sys.exit("the cache does not work")
    if change:
        change()
    sweep(scenario, State(scenario), after, killed, range(0, after + 1, 1000))
sys.exit(1 if failures else 0)
