#!/usr/bin/python3
"""What a measurement list costs a node, by its length: disk, shared memory, the agent's memory and processor time.

usage: tools/node --no-agent [--state DIR] -- bench/footprint/footprint.py EVENTS

Each event is an "ima-ng" record with a SHA-256 digest and a name of 48 to 55 characters, no two alike. Start the node
anew for every length: its table and cache hold until then. Without a TPM the agent keeps no cache.
"""
import hashlib
import os
import pathlib
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools/sandbox"))
import agent_control  # noqa: E402

LOG = pathlib.Path("/sys/kernel/security/ima/binary_runtime_measurements")
MIB = 1 << 20


def write_list(events):
    with open(LOG, "wb") as log:
        for number in range(1, events + 1):
            digest = hashlib.sha256(struct.pack("<Q", number)).digest()
            name = b"/usr/lib/x86_64-linux-gnu/package-%04d/component-%d.so\0" % (number % 5000, number)
            field = b"sha256:\0" + digest
            data = struct.pack("<I", len(field)) + field + struct.pack("<I", len(name)) + name
            log.write(struct.pack("<I", 10) + digest[:20] + struct.pack("<I", 6) + b"ima-ng" + struct.pack("<I", len(data))
                      + data)


def peak_memory(pid):
    """Of what is the process's own: the shared memory that it has mapped is counted by itself."""
    lines = (line.split() for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines())
    size = {line[0]: int(line[1]) * 1024 for line in lines if line[0] in ("VmHWM:", "RssShmem:")}
    return size["VmHWM:"] - size["RssShmem:"]


def processor_s(pid):
    words = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")


def used(*paths):
    return sum(path.stat().st_blocks * 512 for path in paths)


def ask(pid, *options):
    before = processor_s(pid)
    subprocess.run(["attestctl", "--timeout", "3600", "--json", "ima-log", *options], stdout=subprocess.DEVNULL, check=True)
    return processor_s(pid) - before


def show(what, value, unit):
    print(f"{what:44} {value:10.1f} {unit}", flush=True)


def main(events):
    write_list(int(events))
    show("list", LOG.stat().st_size / MIB, "MiB")
    pid = agent_control.start()
    show("agent at rest", peak_memory(pid) / MIB, "MiB")
    show("first stream, processor", ask(pid, "--stream"), "s")
    show("agent after it, peak", peak_memory(pid) / MIB, "MiB")
    show("cache on disk", used(*pathlib.Path("/harddisk:/ima").rglob("ima_cache_*")) / MIB, "MiB")
    show("shared memory", used(*pathlib.Path("/dev/shm").iterdir()) / MIB, "MiB")
    show("stream from the cache, processor", ask(pid, "--stream"), "s")
    show("one answer, processor", ask(pid), "s")
    show("agent after it, peak", peak_memory(pid) / MIB, "MiB")
    agent_control.stop()
    begin = time.monotonic()
    pid = agent_control.start()
    show("restart until it answers", time.monotonic() - begin, "s")
    show("of it processor", processor_s(pid), "s")


main(*sys.argv[1:])
