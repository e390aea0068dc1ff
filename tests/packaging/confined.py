"""confined.py UNIT PROGRAM ...: becomes PROGRAM under what the service file UNIT forbids by system calls and their
arguments. A node's sandbox has the rest: a root that is read-only, and no capabilities.
"""
import errno
import os
import subprocess
import sys

import seccomp

FAMILIES = {"AF_UNIX": 1, "AF_INET": 2, "AF_INET6": 10, "AF_NETLINK": 16}
LARGEST_FAMILY = 64
PROT_WRITE, PROT_EXEC, SHM_EXEC = 2, 4, 0o100000
NAMESPACES = 0x7E020080  # CLONE_NEW*
SUID, SGID = 0o4000, 0o2000


def read_unit(path):
    """The settings of [Service]: name to the list of the values given."""
    settings = {}
    with open(path, encoding="utf-8") as unit:
        for line in unit:
            name, equals, value = line.strip().partition("=")
            if equals and not line.startswith("#"):
                settings.setdefault(name, []).append(value)
    return settings


def members(group):
    """The system calls of a group, as systemd has them."""
    told = subprocess.run(["systemd-analyze", "syscall-filter", group], capture_output=True, text=True, check=True)
    names = {line.strip() for line in told.stdout.splitlines()[1:]}
    calls = {name for name in names if name and name[0] not in "#@"}
    return calls.union(*(members(name) for name in names if name.startswith("@")))


def allowed_calls(filters):
    allowed = set()
    for filter_ in filters:
        forbids = filter_.startswith("~")
        listed = {call for word in filter_.lstrip("~").split() for call in (members(word) if word[0] == "@" else {word})}
        allowed = allowed - listed if forbids else allowed | listed | members("@default")
    return allowed


def load_call_filter(settings):
    error = getattr(errno, settings["SystemCallErrorNumber"][0])
    calls = seccomp.SyscallFilter(seccomp.ERRNO(error))
    for call in allowed_calls(settings["SystemCallFilter"]):
        try:
            calls.add_rule(seccomp.ALLOW, call)
        except (RuntimeError, OSError):
            pass  # of another architecture
    calls.load()


def load_argument_filter(settings):
    """RestrictAddressFamilies=, MemoryDenyWriteExecute=, RestrictNamespaces=, RestrictSUIDSGID=."""
    arguments = seccomp.SyscallFilter(seccomp.ALLOW)
    forbid = arguments.add_rule
    some = seccomp.MASKED_EQ
    families = {FAMILIES[name] for name in settings["RestrictAddressFamilies"][0].split()}
    for family in set(range(LARGEST_FAMILY)) - families:
        forbid(seccomp.ERRNO(errno.EAFNOSUPPORT), "socket", seccomp.Arg(0, seccomp.EQ, family))
    denied = seccomp.ERRNO(errno.EPERM)
    if settings["MemoryDenyWriteExecute"] == ["yes"]:
        both = PROT_WRITE | PROT_EXEC
        forbid(denied, "mmap", seccomp.Arg(2, some, both, both))
        for call in ("mprotect", "pkey_mprotect"):
            forbid(denied, call, seccomp.Arg(2, some, PROT_EXEC, PROT_EXEC))
        forbid(denied, "shmat", seccomp.Arg(2, some, SHM_EXEC, SHM_EXEC))
    if settings["RestrictNamespaces"] == ["yes"]:
        for bit in (1 << n for n in range(32)):
            if NAMESPACES & bit:
                forbid(denied, "clone", seccomp.Arg(0, some, bit, bit))
        forbid(seccomp.ERRNO(errno.ENOSYS), "clone3")  # as systemd has it: its flags are out of a filter's sight
    if settings["RestrictSUIDSGID"] == ["yes"]:
        for call, mode in {"chmod": 1, "fchmod": 1, "fchmodat": 2, "mkdir": 1, "mkdirat": 2, "mknod": 1, "open": 2,
                           "openat": 3, "creat": 1}.items():
            for bit in (SUID, SGID):
                forbid(denied, call, seccomp.Arg(mode, some, bit, bit))
    arguments.load()


def main(unit, *program):
    settings = read_unit(unit)
    os.umask(int(settings["UMask"][0], 8))
    load_argument_filter(settings)
    load_call_filter(settings)
    os.execvp(program[0], program)


main(*sys.argv[1:])
