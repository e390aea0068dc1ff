"""Where things are inside a node."""
import os

CHECKOUT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
PYTHON = "/usr/bin/python3"

# The node's own run-time files, private to the sandbox.
RUN_DIR = "/run/node"
PROGRAMS_DIR = f"{RUN_DIR}/bin"
ENVIRONMENT_FILE = f"{RUN_DIR}/environment.json"  # what COMMAND's environment gets on top of the caller's
TPM_SOCKET = f"{RUN_DIR}/tpm.sock"
BMC_FAULT_FILE = f"{RUN_DIR}/bmc.fault"  # what the BMC is to do wrong

BOOT_LOG = "/sys/kernel/security/tpm0/binary_bios_measurements"
IMA_LOG = "/sys/kernel/security/ima/binary_runtime_measurements"
DISK = "/harddisk:"
BMC_ADDRESS = "169.254.0.17"
BMC_LOGIN = "/usr/share/phosphor-gevent"  # with the client certificate for the BMC
BMC_NODE_DIR = f"{RUN_DIR}/bmc_node"  # the state directory of the node behind the BMC
BMC_NODE_SOCKET = "agent.sock"  # in it: where its agent answers

# Programs by name, where a build directory has them.
AGENT_PROGRAM = "agent/attestation_agent"
BMC_PROGRAM = "tools/bmc_simulator/bmc-simulator"
PROVISION_PROGRAM = "tools/attest_provision/attest-provision"
COMMANDS = {
    "bmc-simulator": BMC_PROGRAM,
    "attest-cache": "tools/attest_cache/attest-cache",
    "attest-provision": PROVISION_PROGRAM,
    "attestctl": "attestctl/attestctl",
    "attest-trace": "tools/attest_trace/attest-trace",
}

# Supervising needs these inside the sandbox: addresses on its loopback, the BMC's port 443, and giving all of
# them up. Whatever is started gets none, the BMC its port.
CAPABILITIES = ("CAP_NET_ADMIN", "CAP_NET_BIND_SERVICE", "CAP_SETPCAP")
WITHOUT_CAPABILITIES = ("setpriv", "--inh-caps=-all", "--ambient-caps=-all", "--bounding-set=-all", "--")
WITH_LOW_PORTS = ("setpriv", "--inh-caps=-all", "--ambient-caps=-all", "--bounding-set=-all,+net_bind_service", "--")
