#!/usr/bin/python3
"""The supervisor inside a node's sandbox: starts its parts in the order in which a machine would, runs COMMAND,
takes the parts down again. Whatever it leaves ends with the sandbox.

    inside.py run CONFIGURATION      the node; CONFIGURATION is what outside.py says, in JSON
    inside.py enter DIRECTORY COMMAND ...  one more command in a running node
"""
import ipaddress
import json
import os
import select
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True

import agent_control  # noqa: E402
import software_tpm  # noqa: E402
from failure import COMMAND_NOT_FOUND, NODE_FAILED, Failure  # noqa: E402
from layout import (AGENT_PROGRAM, BMC_ADDRESS, BMC_FAULT_FILE, BMC_NODE_DIR, BMC_NODE_SOCKET,  # noqa: E402
                    BMC_PROGRAM, BOOT_LOG, CHECKOUT, COMMANDS, ENVIRONMENT_FILE, IMA_LOG, PROGRAMS_DIR,
                    PROVISION_PROGRAM, PYTHON, TPM_SOCKET, WITH_LOW_PORTS, WITHOUT_CAPABILITIES)

RELAY = f"{CHECKOUT}/tools/sandbox/relay.py"
AGENT_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
# Of the caller's environment the agent gets its own settings and what an instrumented build listens to.
AGENT_VARIABLES = ("ATTEST_", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS")
# What a service manager tells the caller is about the caller, not about the node.
SERVICE_VARIABLES = ("RUNTIME_DIRECTORY", "NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC")

BMC_START_LIMIT_S = 60  # an instrumented build on a busy machine included
COMMAND_GRACE_S = 2
LOST_AGENT_CHECK_S = 0.5

IDENTITY_CHAIN = "RSA_SCHAIN"  # the object with the certificates that issued the device identity's


def run(configuration):
    """A node's life. Returns the exit status."""
    state = configuration["state"]
    settings = agent_environment(configuration)
    os.makedirs(PROGRAMS_DIR)
    install_programs(configuration["build"])
    set_addresses(configuration, settings)
    agent_control.describe(f"{configuration['build']}/{AGENT_PROGRAM}", f"{state}/work", f"{state}/agent.log", settings)
    tpm = software_tpm.start(state, BOOT_LOG) if configuration["tpm"] else None
    try:
        if tpm:
            software_tpm.measure(BOOT_LOG, IMA_LOG)
            provision(configuration["build"], state)
        if configuration["bmc"]:
            start_bmc(configuration["build"], state, configuration["bmc"]["fault"])
        if configuration["agent"]:
            agent_control.start()
        write_environment(configuration, settings)
        if configuration["publish"]:
            publish(configuration["publish"], settings)
        if configuration["command"]:
            return run_command(configuration["command"], configuration["control"])
        return serve(configuration, settings)
    finally:
        if agent_control.is_running():
            try_to(agent_control.stop)
        if tpm:
            software_tpm.stop(tpm)


def agent_environment(configuration):
    caller = {name: value for name, value in os.environ.items() if name.startswith(AGENT_VARIABLES)}
    own = {"PATH": AGENT_PATH, "LANG": "C.UTF-8", "HOME": f"{configuration['state']}/work"}
    if not configuration["bmc"]:
        own["ATTEST_BMC_ADDRESS"] = "none"
    if configuration["tpm"]:
        own["ATTEST_TPM"] = f"swtpm:path={TPM_SOCKET}"
        own["ATTEST_TRUST_ANCHOR"] = manifest(configuration["state"])
    return own | caller


def manifest(state):
    return f"{state}/trust_anchor/trust_anchor.json"


def provision(build, state):
    """Makes keys and certificates once a state directory; they stay with its TPM."""
    if os.path.exists(manifest(state)):
        return
    done = subprocess.run([*WITHOUT_CAPABILITIES, f"{build}/{PROVISION_PROGRAM}", "--tpm", f"swtpm:path={TPM_SOCKET}",
                           "--dir", os.path.dirname(manifest(state)), "--node-name", os.uname().nodename],
                          capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Failure(f"the node cannot be provisioned: {done.stderr.strip() or done.stdout.strip()}", NODE_FAILED)


def install_programs(build):
    programs = {name: f"{build}/{path}" for name, path in COMMANDS.items()}
    for name in ("node-agent", "node-bmc"):
        programs[name] = f"{CHECKOUT}/tools/sandbox/bin/{name}"
    for name, path in programs.items():
        if os.path.exists(path):
            os.symlink(path, f"{PROGRAMS_DIR}/{name}")


def set_addresses(configuration, settings):
    """The sandbox brings its loopback up; more addresses than 127.0.0.1 are added to it."""
    addresses = [BMC_ADDRESS] if configuration["bmc"] else []
    try:
        node = ipaddress.IPv4Address(settings.get("ATTEST_NODE_ADDRESS", "127.0.0.1"))
        if not (node.is_loopback or node.is_unspecified or node.is_multicast or str(node) in addresses):
            addresses.append(str(node))
    except ValueError:
        pass  # what cannot be an address is the agent's to refuse
    for address in addresses:
        subprocess.run(["ip", "address", "add", f"{address}/32", "dev", "lo"], check=True)


def start_bmc(build, state, fault):
    """The simulator, with the evidence of the node behind it, for those that this node's authority certifies."""
    agent_control.write_file(BMC_FAULT_FILE, fault or "")
    with open(manifest(state), encoding="utf-8") as file:
        objects = json.load(file)["objects"]
    authority = f"{os.path.dirname(manifest(state))}/{objects[IDENTITY_CHAIN]['file']}"
    with open(f"{state}/bmc.log", "wb") as log:
        bmc = subprocess.Popen([*WITH_LOW_PORTS, f"{build}/{BMC_PROGRAM}", "--node",
                                f"unix:{BMC_NODE_DIR}/{BMC_NODE_SOCKET}", "--authority", authority, "--credentials",
                                f"{state}/bmc_login", "--fault-file", BMC_FAULT_FILE],
                               cwd=state, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
    deadline = time.monotonic() + BMC_START_LIMIT_S
    while not agent_control.is_listening(443):
        if bmc.poll() is not None or time.monotonic() > deadline:
            said = agent_control.read_file(f"{state}/bmc.log").strip()
            raise Failure(f"the BMC simulator did not start: {said or 'no message'}", NODE_FAILED)
        time.sleep(0.01)


def target(settings):
    return settings.get("ATTEST_NODE_ADDRESS", "127.0.0.1"), settings.get("ATTEST_PORT", agent_control.DEFAULT_PORT)


def publish(listener, settings):
    """Serves a listening socket of the machine's network: it stays that network's, whoever accepts on it."""
    host, port = target(settings)
    subprocess.Popen([*WITHOUT_CAPABILITIES, PYTHON, RELAY, str(listener), host, str(port)],
                     pass_fds=[listener], stdin=subprocess.DEVNULL, start_new_session=True)


def write_environment(configuration, settings):
    host, port = target(settings)
    own = {"NODE_STATE": configuration["state"], "NODE_ADDRESS": f"{host}:{port}",
           "PATH": f"{PROGRAMS_DIR}:{os.environ.get('PATH', AGENT_PATH)}:/usr/sbin:/sbin"}
    if configuration["tpm"]:
        own["NODE_TPM"] = f"swtpm:path={TPM_SOCKET}"
        own["ATTEST_TRUST_ANCHOR"] = manifest(configuration["state"])
    agent_control.write_file(ENVIRONMENT_FILE, json.dumps(own))


def command_environment():
    own = json.loads(agent_control.read_file(ENVIRONMENT_FILE))
    if agent_control.is_running():
        own["NODE_AGENT_PID"] = str(agent_control.pid())
    caller = {name: value for name, value in os.environ.items() if name not in SERVICE_VARIABLES}
    return caller | own


def run_command(argv, control):
    """Runs COMMAND until it ends, or until `control` says that the node is to end."""
    environment = command_environment()
    try:
        command = subprocess.Popen([*WITHOUT_CAPABILITIES, *which(argv, environment)], env=environment,
                                   preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
    except FileNotFoundError:
        raise Failure(f"command not found: {argv[0]}", COMMAND_NOT_FOUND) from None
    ended = os.pidfd_open(command.pid)
    if control in select.select([control, ended], [], [])[0]:
        command.terminate()
        if not select.select([ended], [], [], COMMAND_GRACE_S)[0]:
            command.kill()
    status = command.wait()
    return 128 - status if status < 0 else status


def which(argv, environment):
    """argv with its program found, for what runs it would report a missing one as its own failure."""
    for directory in [""] if "/" in argv[0] else environment["PATH"].split(":"):
        path = os.path.join(directory, argv[0])
        if os.path.isfile(path) and os.access(path, os.X_OK):
            return [path, *argv[1:]]
    raise FileNotFoundError(argv[0])


def serve(configuration, settings):
    host, port = target(settings)
    state = configuration["state"]
    enter = f"{CHECKOUT}/tools/node --state {state} --enter"
    print(f"the node serves at {host}:{port} of its own network; to enter it: {enter}")
    if configuration["published"]:
        print(f"published: attestctl --target {configuration['published']}")
    print(f"the agent's messages: {state}/agent.log; interrupt to end the node", flush=True)
    while not select.select([configuration["control"]], [], [], LOST_AGENT_CHECK_S)[0]:
        if agent_control.is_lost():
            raise Failure(f"the agent ended: {agent_control.status()}; "
                          f"{agent_control.last_words(f'{state}/agent.log')}", NODE_FAILED)
    return 0


def try_to(action):
    try:
        action()
    except Failure as failure:
        print(f"tools/node: {failure}", file=sys.stderr)


def enter(directory, argv):
    """Becomes the command, in the caller's directory where the sandbox has it."""
    os.chdir(directory if os.path.isdir(directory) else "/")
    environment = command_environment()
    try:
        argv = which(argv, environment)
    except FileNotFoundError:
        raise Failure(f"command not found: {argv[0]}", COMMAND_NOT_FOUND) from None
    os.execvpe(WITHOUT_CAPABILITIES[0], [*WITHOUT_CAPABILITIES, *argv], environment)


def main(verb, arguments):
    try:
        return run(json.loads(arguments[0])) if verb == "run" else enter(arguments[0], arguments[1:])
    except Failure as failure:
        print(f"tools/node: {failure}", file=sys.stderr)
        return failure.status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2:]))
