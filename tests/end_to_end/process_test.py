"""The agent's life: every way in which its start can fail, and its end by a signal."""
import os
import signal
import subprocess
import tempfile
import unittest

import node

STARTED = "attestation_agent_server_start(): Done attestation agent CAPI server start"
START_FAILED = "attestation_agent_server_start(): Failed instcmd CAPI server start: "
LEFT_LOOP = "main(): exited from levm_block()"


class Process(unittest.TestCase):
    def setUp(self):
        node.ensure_stopped()
        self.run_dir = tempfile.mkdtemp()  # its trace holds this case's lines only
        self.words_before = len(node.agent_words())

    def start(self, *settings, wrapper=(), check=True):
        under = ["--", *wrapper] if wrapper else []
        return node.agent("start", f"ATTEST_RUN_DIR={self.run_dir}", *settings, *under, check=check)

    def start_and_settle(self, *settings):
        """The port listens a moment before the agent says so: waits for the last line of a start."""
        self.start(*settings)
        node.wait_for(lambda: STARTED in self.trace(), "the trace of the start")

    def trace(self):
        return node.trace(self.run_dir)

    def words(self):
        return node.agent_words()[self.words_before:]


class StartUp(Process):
    def test_settings_that_say_nothing_are_told_once(self):
        self.start_and_settle("ATTEST_BMC_ADDRESS=bmc.example", "ATTEST_TPM=/dev/tpm0", "ATTEST_TRACE=agent, rpc,attest")
        node.attestctl("boot-log")
        words = "".join(self.words())
        for line in ('ATTEST_BMC_ADDRESS is neither an IPv4 address in dotted form nor "none"',
                     "ATTEST_TPM is neither device:PATH nor swtpm:path=SOCKET", 'ATTEST_TRACE: there is no flag "rpc"'):
            self.assertEqual(words.count(line), 1, words)
        self.assertEqual(words.count("there is no flag"), 1, words)

    def test_failures_that_end_the_start(self):
        strace = ["strace", "-D", "-qq", "-o", "/dev/null", "-e", "trace=epoll_create1",
                  "-e", "inject=epoll_create1:error=EMFILE:when=1"]
        cases = [
            # what fails, settings, wrapper, how it ends, the system message, the trace's end
            ("event manager", ["ASAN_OPTIONS=detect_leaks=0"], strace, "exit status 0",  # no leak check under strace
             "Initialization failed: Attestation Agent: Unable to instantiate levm", None),
            ("node name", ["ATTEST_NODE_NAME="], [], "exit status 1",
             "Initialization failed: Unable to get platform node info", None),
            ("node id", ["ATTEST_NODE_ID=seven"], [], "exit status 0", None,
             "attestation_agent_server_start(): Failed to get nodeid: "),
            ("node address", ["ATTEST_NODE_ADDRESS=here"], [], "exit status 0", None,
             "attestation_agent_server_start(): Failed to get node IP: "),
            ("address without TLS", ["ATTEST_NODE_ADDRESS=192.0.2.7"], [], "exit status 0", None, START_FAILED),
            ("port", ["ATTEST_PORT=0x1"], [], "exit status 0", None, START_FAILED),
            ("TLS files", ["ATTEST_TLS_DIR=/nowhere"], [], "exit status 0", None, START_FAILED),
            ("clients that are known by nothing", ["ATTEST_ALLOW=/etc/hosts"], [], "exit status 0",
             "ATTEST_ALLOW names clients by their certificates: set ATTEST_TLS_DIR too", START_FAILED),
        ]
        for what, settings, wrapper, end, message, traced in cases:
            with self.subTest(what):
                self.setUp()
                self.start(*settings, wrapper=wrapper, check=False)
                self.assertEqual(node.agent("status"), end)
                if message:
                    self.assertIn(message, self.words())
                if traced:
                    lines = self.trace()
                    self.assertTrue(any(line.startswith(traced) for line in lines), lines)
                    self.assertTrue(lines[-2].startswith(START_FAILED), lines)
                    self.assertEqual(lines[-1], LEFT_LOOP)

    def test_busy_port_fails_the_activation(self):
        self.start()
        second = subprocess.run([node.AGENT], capture_output=True, text=True, timeout=60, check=False,
                                env={**os.environ, "ATTEST_RUN_DIR": tempfile.mkdtemp()})
        self.assertEqual(second.returncode, 0)
        self.assertIn("Address already in use", second.stderr)

    def test_without_a_trace_buffer_the_agent_serves(self):
        self.run_dir = "/dev/null/trace"
        self.start()
        self.assertIn("Initialization failed: trace buffer", self.words())
        self.assertEqual(node.attestctl("boot-log").returncode, 1)  # answered, without evidence: there is no log

    def test_order_of_a_start_also_with_a_flag_that_cannot_be_registered(self):
        os.mkdir(f"{self.run_dir}/trace_flags")
        self.start_and_settle()
        lines = self.trace()
        self.assertTrue(lines[0].startswith("attest_dbg_init(): failed to init attest debug flag, rc="), lines)
        self.assertTrue(any(line.startswith("attestation_local_init(): ") for line in lines), lines)
        self.assertEqual(lines[-1], STARTED)

    def test_arguments(self):
        for argument, status in (("--version", 0), ("--help", 0), ("--daemon", 1), ("serve", 1)):
            done = subprocess.run([node.AGENT, argument], capture_output=True, text=True, timeout=60,
                                  check=False)
            self.assertEqual(done.returncode, status, argument)
            self.assertTrue(done.stderr if status else done.stdout)


class Termination(Process):
    def expect_end(self, pid, name):
        node.wait_for(lambda: not node.agent("status").startswith("running"), "end of the agent")
        self.assertEqual(node.agent("status"), f"signal {signal.SIGTERM.value}")
        self.assertEqual(self.trace()[-2:],
                         [f"at_agent_signal_handler(): Received signal {signal.SIGTERM.value}",
                          f"at_agent_signal_handler(): Signal originated from process pid={pid} and name={name}"])

    def test_sender_is_named(self):
        self.start_and_settle()
        os.kill(node.agent_pid(), signal.SIGTERM)
        with open("/proc/self/cmdline", encoding="utf-8") as own:
            name = own.read().split("\0")[0]
        self.expect_end(os.getpid(), name)

    def test_sender_that_is_gone_is_named_by_its_path(self):
        self.start_and_settle()
        agent = node.agent_pid()
        os.kill(agent, signal.SIGSTOP)  # the signal waits until its sender is gone
        sender = subprocess.Popen(["python3", "-c", f"import os; os.kill({agent}, {signal.SIGTERM.value})"])
        sender.wait()
        os.kill(agent, signal.SIGCONT)
        self.expect_end(sender.pid, f"/proc/{sender.pid}/cmdline")

    def test_long_name_is_cut(self):
        self.start_and_settle()
        sender = subprocess.Popen(["x" * 300, "-c", f"kill -TERM {node.agent_pid()}; read line"],
                                  executable="/bin/sh", stdin=subprocess.PIPE)
        self.expect_end(sender.pid, "x" * 199)
        sender.communicate(b"\n")


if __name__ == "__main__":
    unittest.main()
