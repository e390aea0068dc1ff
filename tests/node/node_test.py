#!/usr/bin/python3
"""The sandboxed node: what is seen inside, what stays untouched outside, what its exit status and its ends are."""
import ctypes
import os
import pty
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
NODE = f"{ROOT}/tools/node"
BOOT_LOG = f"{ROOT}/tests/data/recorded-a-boot.bin"
KERNEL_BOOT_LOG = "/sys/kernel/security/tpm0/binary_bios_measurements"
KERNEL_IMA_LOG = "/sys/kernel/security/ima/binary_runtime_measurements"
BARE = ("--no-tpm", "--no-agent")
NOBODY = 65534

PR_SET_PDEATHSIG = 1
IPC_CREAT = 0o1000
LIBC = ctypes.CDLL(None)


def end_with_the_test():
    """A test that is killed leaves no node serving."""
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


class NodeTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="node-test-")
        self.addCleanup(shutil.rmtree, self.directory)
        # The sandbox's temporary directories go where it can be seen that nothing is left of them.
        self.temporary = f"{self.directory}/temporary"
        os.mkdir(self.temporary)
        self.state = f"{self.directory}/state"

    def start(self, *arguments, settings=(), **options):
        environment = os.environ | {"TMPDIR": self.temporary} | dict(settings)
        return subprocess.Popen([NODE, *arguments], env=environment, text=True, stdin=options.pop("stdin", None),
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, preexec_fn=end_with_the_test, **options)

    def run_node(self, *arguments, said_to=None, **options):
        """Runs a node to its end; its status, its output and what it said on stderr."""
        node = self.start(*arguments, stdin=subprocess.PIPE, **options)
        out, err = node.communicate(said_to)
        self.assertEqual(os.listdir(self.temporary), [], "a temporary state directory is left")
        return node.returncode, out, err

    def shell(self, script, *options, **more):
        """The output of a shell script that must succeed inside."""
        status, out, err = self.run_node(*options, "--", "sh", "-ec", script, **more)
        self.assertEqual(status, 0, f"{out}\n{err}")
        return out

    def serve(self, *arguments):
        """Starts a node that serves; returns it and its published address once it does."""
        node = self.start(*arguments, "--publish", "0")
        self.addCleanup(node.communicate)
        self.addCleanup(node.terminate)
        line = ""
        while not (found := re.search(r"--target (127\.0\.0\.1):(\d+)", line)):
            line = node.stdout.readline()
            self.assertTrue(line, "the node ended before it served")
        return node, (found[1], int(found[2]))


class Inside(NodeTest):
    def test_a_log_is_the_callers_file_and_grows_with_it(self):
        log = f"{self.directory}/ima.bin"
        with open(log, "wb", buffering=0) as file:
            file.write(b"first ")
            node = self.start(*BARE, "--boot-log", BOOT_LOG, "--ima-log", log, "--", "sh", "-c",
                              f"cmp {BOOT_LOG} {KERNEL_BOOT_LOG} && echo same; read go; cat {KERNEL_IMA_LOG}",
                              stdin=subprocess.PIPE)
            self.assertEqual(node.stdout.readline(), "same\n")
            file.write(b"second")
            self.assertEqual(node.communicate("go\n")[0], "first second")

    def test_files_of_the_machine_cannot_be_changed(self):
        places = [f"{place}/node-test" for place in ("/usr", "/etc", "/sys/class", "/proc/sys/kernel", ROOT)]
        said = self.shell(f"for place in {' '.join(places)}; do touch $place && echo changed $place; done; echo done",
                          *BARE)
        self.assertEqual(said, "done\n")
        self.assertEqual([place for place in places if os.path.exists(place)], [])

    def test_shared_places_are_private(self):
        name = f"node-test-{os.getpid()}"
        places = [f"/tmp/{name}", f"/run/{name}", f"/dev/shm/{name}", f"/harddisk:/{name}"]
        key = 0x6E000000 | os.getpid()
        make = f"import ctypes; assert ctypes.CDLL(None).semget({key}, 2, {IPC_CREAT | 0o600}) >= 0"
        self.shell(f"touch {' '.join(places)}; /usr/bin/python3 -c '{make}'", *BARE)
        self.assertEqual([place for place in places if os.path.exists(place)], [])
        self.assertEqual(LIBC.semget(key, 0, 0), -1)
        self.assertEqual(self.shell("ls /tmp /dev/shm /harddisk:; ipcs -s | grep -c 0x || true", *BARE).split()[-1], "0")

    def test_the_network_is_a_loopback_of_its_own(self):
        interfaces = self.shell("tail -n +3 /proc/net/dev; ip -brief address", *BARE,
                                settings={"ATTEST_NODE_ADDRESS": "192.0.2.7"})
        self.assertIn("192.0.2.7", interfaces)
        self.assertRegex(interfaces, r"(?m)^lo +UNKNOWN ")
        self.assertNotRegex(interfaces, r"(?m)^ *(?!lo)\w+:")

    def test_command_and_agent_have_no_capabilities(self):
        sets = self.shell("grep -h '^Cap' /proc/self/status /proc/$NODE_AGENT_PID/status")
        self.assertEqual({line.split()[1] for line in sets.splitlines()}, {"0" * 16})

    def test_the_agent_gets_its_settings_and_little_else(self):
        settings = {"ATTEST_NODE_NAME": "given", "SECRET_OF_THE_CALLER": "x"}
        names = self.shell("tr '\\0' '\\n' < /proc/$NODE_AGENT_PID/environ", settings=settings)
        self.assertIn("ATTEST_NODE_NAME=given\n", names)
        self.assertIn("ATTEST_TPM=swtpm:path=/run/node/tpm.sock\n", names)
        self.assertNotIn("SECRET", names)
        self.assertEqual(self.shell("readlink /proc/$NODE_AGENT_PID/cwd; stat -c %a $NODE_STATE/work", "--state",
                                    self.state), f"{self.state}/work\n700\n")

    def test_a_working_directory_below_tmp_is_seen(self):
        directory = f"{self.directory}/cwd"
        os.mkdir(directory)
        with open(f"{directory}/note", "w", encoding="utf-8") as note:
            note.write("noted\n")
        self.assertEqual(self.shell("pwd; cat note", *BARE, cwd=directory), f"{directory}\nnoted\n")

    def test_an_ordinary_user_can_run_it(self):
        if os.geteuid() != 0:
            self.skipTest("all these tests run as one")
        os.chmod(self.directory, 0o711)
        os.chmod(self.temporary, 0o777)
        user = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
        if subprocess.run([NODE, "--help"], capture_output=True, check=False, **user).returncode:
            self.skipTest("the checkout is not for everybody to read")
        self.assertEqual(self.shell(f"node-agent restart; cat {KERNEL_BOOT_LOG} | wc -c; touch /harddisk:/x",
                                    "--boot-log", BOOT_LOG, **user), f"{os.path.getsize(BOOT_LOG)}\n")


class Agent(NodeTest):
    def test_a_start_that_fails_says_why(self):
        status, _, err = self.run_node(settings={"ATTEST_NODE_NAME": "\n"})
        self.assertEqual(status, 3)
        self.assertRegex(err, r"the agent ended \(exit status 1\) before it answered; it said")

    def test_a_verb_without_an_agent_is_refused(self):
        said = self.shell("for verb in stop kill pid; do node-agent $verb 2>&1 || echo $?; done", *BARE)
        self.assertEqual(said, "node-agent: the agent does not run: never started\n2\n" * 3)


class Ends(NodeTest):
    def test_the_commands_status_and_streams_are_the_tools(self):
        self.assertEqual(self.run_node(*BARE, "--", "sh", "-c", "cat; echo e >&2; exit 7", said_to="i"), (7, "i", "e\n"))
        self.assertEqual(self.run_node(*BARE, "--", "sh", "-c", "kill -9 $$")[0], 128 + 9)
        self.assertEqual(self.run_node(*BARE, "--", "no-such-command")[0], 127)

    def test_wrong_usage_is_one_line(self):
        for arguments in (["--bogus"], ["--boot-log", "/none"], ["--ima-log", self.directory], ["--build", "/none"],
                          ["--publish", "port"], ["--enter"], ["--enter", "--state", self.directory]):
            with self.subTest(arguments=arguments):
                status, out, err = self.run_node(*arguments, "--", "true")
                self.assertEqual((status, out, err.count("\n")), (2, "", 1), err)
        for program in ("bwrap", "swtpm"):
            status, _, err = self.run_node("--", "true", settings={"PATH": self.path_without(program)})
            self.assertEqual((status, err.split(" ")[1:4]), (2, [program, "is", "not"]), err)

    def path_without(self, program):
        directory = f"{self.directory}/without-{program}"
        os.mkdir(directory)
        for name in {"bwrap", "swtpm", "setpriv"} - {program}:
            os.symlink(shutil.which(name), f"{directory}/{name}")
        return directory

    def test_a_served_node_ends_when_it_is_told_to(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            node, address = self.serve()
            socket.create_connection(address).close()
            node.send_signal(number)
            self.assertEqual(node.wait(), 0)
            self.assertEqual(os.listdir(self.temporary), [])
            self.assert_nobody_listens(address)

    def assert_nobody_listens(self, address):
        """The sandbox's last processes may go a moment after the tool; the bound is for those that stay."""
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            try:
                socket.create_connection(address).close()
            except OSError:
                return
            time.sleep(0.02)
        self.fail(f"something still listens at {address}")

    def test_a_command_ends_with_the_node_that_is_told_to(self):
        node = self.start("--", "sh", "-c", "echo ready; exec sleep 1000")
        self.assertEqual(node.stdout.readline(), "ready\n")
        node.terminate()
        node.communicate()
        self.assertEqual(node.returncode, 128 + signal.SIGTERM)

    def test_an_interrupt_at_the_terminal_is_the_commands(self):
        child, terminal = pty.fork()
        if child == 0:
            script = "trap 'echo caught; exit 5' INT; echo ready; while :; do sleep 0.1; done"
            os.execv(NODE, [NODE, *BARE, "--", "sh", "-c", script])
        with os.fdopen(terminal, "r+b", buffering=0) as screen:
            said = b""
            while b"ready" not in said:
                said += screen.read(100)
            screen.write(b"\x03")
            self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 5)

    def test_a_lost_agent_ends_a_served_node(self):
        node, _ = self.serve("--state", self.state)
        self.run_node("--state", self.state, "--enter", "--", "sh", "-c", "kill -9 $NODE_AGENT_PID")
        self.assertIn("the agent ended: signal 9", node.communicate()[1])
        self.assertEqual(node.returncode, 3)


class State(NodeTest):
    def test_disk_and_tpm_outlive_the_node(self):
        index = ("--state", self.state, "--no-agent")
        self.shell('tpm2_nvdefine -T $NODE_TPM -Q -s 8 0x1500001; echo kept > "/harddisk:/file"', *index)
        self.shell('tpm2_nvreadpublic -T $NODE_TPM 0x1500001; test "$(cat /harddisk:/file)" = kept', *index)

    def test_a_tpm_that_lost_power_starts_again(self):
        node = self.start("--state", self.state, "--no-agent", "--", "sh", "-c",
                          "tpm2_nvdefine -T $NODE_TPM -Q -s 8 0x1500001; echo done; exec sleep 1000")
        self.assertEqual(node.stdout.readline(), "done\n")
        node.kill()
        node.communicate()
        self.shell("tpm2_nvreadpublic -T $NODE_TPM 0x1500001", "--state", self.state, "--no-agent")

    def test_nodes_side_by_side_do_not_meet(self):
        first, _ = self.serve("--state", self.state)
        self.assertIn("another node runs", self.run_node("--state", self.state, "--", "true")[2])
        self.shell("test ! -e /dev/shm/first", "--state", f"{self.directory}/other")
        self.assertEqual(self.run_node("--state", self.state, "--enter", "--", "sh", "-c",
                                       "touch /dev/shm/first; node-agent restart; echo $NODE_ADDRESS"),
                         (0, "127.0.0.1:50551\n", ""))
        self.shell("test ! -e /dev/shm/first", "--state", f"{self.directory}/other")
        self.assertIsNone(first.poll())


if __name__ == "__main__":
    unittest.main(argv=sys.argv, verbosity=2)
