"""The life of an installation, on a machine of its own with systemd (see `machine` beside this): the package is built,
judged, installed, provisioned, asked over mutual TLS from another network, killed, upgraded, rolled back and purged."""
import mmap
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tools/sandbox"))
import layout  # noqa: E402
import software_tpm  # noqa: E402

UNIT = "attestation_agent.service"
SETTINGS = pathlib.Path("/etc/default/attestation_agent")
TLS = pathlib.Path("/etc/attestation_agent/tls")
NODE, VERIFIER = "10.99.0.1", "10.99.0.2"
# What an installation leaves anywhere it may have written.
TRACES = re.compile(r"attest|harddisk|ima_(cache|unique)")
PLACES = ("/etc", "/run", "/var/lib", "/usr", "/lib/systemd", "/dev/shm", "/")


def run(*command, **keywords):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False, **keywords)
    if done.returncode != 0:
        raise AssertionError(f"{command}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def shown(name):
    return run("systemctl", "show", "--value", f"--property={name}", UNIT).strip()


def wait_for(condition, what):
    """The bound is for a machine that is stuck, not a measure of speed."""
    deadline = time.monotonic() + 60
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"{what}: not within 60 s\n{run('journalctl', '--no-pager', f'--unit={UNIT}')}")
        time.sleep(0.05)


def files_of_it():
    found = set()
    for place in PLACES:
        depth = 1 if place == "/" else 4
        told = run("find", place, "-xdev", "-maxdepth", depth, "-not", "-path", "/usr/share/doc/*", "-print")
        found |= {path for path in told.splitlines() if TRACES.search(path) and not path.startswith(str(SOURCE))
                  and not path.startswith(("/etc/systemd/system/operator", "/var/lib/dpkg/info"))}
    return found


def semaphore_sets():
    return [line for line in run("ipcs", "--semaphores").splitlines() if line.startswith("0x")]


class Installation(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)

    def test_life(self):
        self.files_before = files_of_it()
        self.build_and_judge()
        self.connect_the_verifier()
        self.install()
        self.provision()
        self.attest()
        self.look_at_what_it_sees()
        self.kill()
        self.stop_the_event_loop()
        self.upgrade_and_roll_back()
        self.purge()

    def build_and_judge(self):
        run(SOURCE / "scripts/package", "--build", os.environ["ATTEST_BUILD_DIR"], "--out", self.directory)
        self.agent, = self.directory.glob("attestation-agent_*.deb")
        self.attestctl, = self.directory.glob("attestctl_*.deb")
        if shutil.which("lintian"):
            run("lintian", "--allow-root", "--fail-on", "error", "--tag-display-limit", "0", self.agent, self.attestctl)
        # The next version: it says so, and its settings file is another one.
        tree = self.directory / "next"
        run("dpkg-deb", "--raw-extract", self.agent, tree)
        control = tree / "DEBIAN/control"
        control.write_text(re.sub(r"^Version: .*", "Version: 9.0", control.read_text(), flags=re.M))
        with open(tree / SETTINGS.relative_to("/"), "a", encoding="utf-8") as settings:
            settings.write("# A setting of the next version.\n")
        self.next_agent = self.directory / "next.deb"
        run("dpkg-deb", "-Zgzip", "-z1", "--build", tree, self.next_agent)

    def connect_the_verifier(self):
        run("ip", "link", "set", "lo", "up")
        run("ip", "netns", "add", "verifier")
        run("ip", "link", "add", "node", "type", "veth", "peer", "name", "verifier", "netns", "verifier")
        for where, device, address in (((), "node", NODE), (("-netns", "verifier"), "verifier", VERIFIER)):
            run("ip", *where, "address", "add", f"{address}/24", "dev", device)
            run("ip", *where, "link", "set", device, "up")
        TLS.mkdir(parents=True)
        authority = ("-CA", f"{TLS}/client-ca.crt", "-CAkey", f"{TLS}/ca.key")
        for name, more in (("ca", ("-out", f"{TLS}/client-ca.crt")),
                           ("server", (*authority, "-out", f"{TLS}/server.crt", "-addext", f"subjectAltName=IP:{NODE}")),
                           ("verifier", (*authority, "-out", f"{TLS}/verifier.crt"))):
            run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                "-subj", f"/CN={name}", "-keyout", f"{TLS}/{name}.key", *more)

    def install(self):
        run("dpkg", "--install", self.agent, self.attestctl)
        self.assertEqual((shown("ActiveState"), shown("Type")), ("active", "notify"))
        self.assertEqual(run("systemctl", "is-enabled", UNIT).strip(), "enabled")
        self.assertIn("IMA cache has been changed", run("journalctl", "--list-catalog"))
        wait_for(lambda: self.ask("boot-log", "--timeout", "5", network=())[0] == 1, "an agent without any log")

    def provision(self):
        for path, log in ((layout.BOOT_LOG, "boot"), (layout.IMA_LOG, "ima")):
            shutil.copy(SOURCE / f"tests/data/recorded-a-{log}.bin", path)
        state = self.directory / "state"
        for folder in (state / "tpm", pathlib.Path(layout.TPM_SOCKET).parent):
            folder.mkdir(parents=True)
        tpm = software_tpm.start(str(state), layout.BOOT_LOG)
        self.addCleanup(software_tpm.stop, tpm)
        software_tpm.measure(layout.BOOT_LOG, layout.IMA_LOG)
        text = SETTINGS.read_text()
        for name, value in {"NODE_NAME": "card7", "NODE_ADDRESS": NODE, "TLS_DIR": TLS, "BMC_ADDRESS": "none",
                            "TPM": f"swtpm:path={layout.TPM_SOCKET}"}.items():
            text, count = re.subn(f"^#ATTEST_{name}=.*", f"ATTEST_{name}={value}", text, flags=re.M)
            self.assertEqual(count, 1, name)
        SETTINGS.write_text(text)
        self.change_unit("tpm", f"BindPaths={pathlib.Path(layout.TPM_SOCKET).parent}")
        run("systemctl", "stop", UNIT)
        run("attest-provision", "--tpm", f"swtpm:path={layout.TPM_SOCKET}", "--node-name", "card7")
        run("systemctl", "start", UNIT)

    def change_unit(self, name, text):
        drop_in = pathlib.Path(f"/run/systemd/system/{UNIT}.d/{name}.conf")
        drop_in.parent.mkdir(parents=True, exist_ok=True)
        drop_in.write_text(f"[Service]\n{text}\n")
        run("systemctl", "daemon-reload")
        return drop_in

    def ask(self, *arguments, network=("ip", "netns", "exec", "verifier")):
        secured = ("--target", f"{NODE}:50551", "--ca", TLS / "client-ca.crt", "--cert", TLS / "verifier.crt", "--key",
                   TLS / "verifier.key") if network else ()
        done = subprocess.run([*network, "attestctl", *map(str, secured), *arguments], capture_output=True, text=True,
                              check=False)
        return done.returncode, done.stdout + done.stderr

    def attest(self):
        """The whole verdict, once the agent serves."""
        said = None

        def answered():
            nonlocal said
            said = self.ask("attest")
            return said[0] != 2

        wait_for(answered, "an answer over TLS")
        self.assertEqual(said[0], 0, said[1])
        self.assertIn("card7", said[1])

    def shared_memory(self):
        return {path.name: path.stat().st_ino for path in pathlib.Path("/dev/shm").iterdir() if "ima_" in path.name}

    def look_at_what_it_sees(self):
        """Nothing that would do root's bidding, no device but the TPM, nothing that can be written but its own."""
        root = pathlib.Path(f"/proc/{shown('MainPID')}/root")
        self.assertEqual({path.name for path in (root / "run").iterdir()}, {"attestation_agent", "node", "systemd"})
        self.assertLessEqual({path.name for path in (root / "run/systemd").iterdir()}, {"notify", "journal", "incoming"})
        self.assertEqual([path.name for path in (root / "var/lib").iterdir()], ["attestation_agent"])
        self.assertEqual([path for path in (root / "dev").iterdir() if path.is_block_device()], [])
        mounts = (root.parent / "mounts").read_text().splitlines()
        writable = {place for _, place, kind, options, *_ in map(str.split, mounts) if options.startswith("rw")}
        own = re.compile(r"/(dev|proc|tmp|var/tmp|harddisk:|run/attestation_agent|run/node|var/lib/attestation_agent)(/|$)")
        self.assertEqual({place for place in writable if not own.match(place)}, set())

    def kill(self):
        """Neither an end by force nor an orderly one loses what holds until reboot."""
        before = self.shared_memory()
        self.assertEqual(len(before), 2)
        for end in (("kill", "--signal=KILL"), ("stop",)):
            run("systemctl", *end, UNIT)
            run("systemctl", "start", UNIT)
            self.attest()
            self.assertEqual(self.shared_memory(), before)
            run("attest-cache", "verify")
            self.assertIn("VERIFIED", self.ask("attest")[1])

    def stop_the_event_loop(self):
        """The watchdog is fed while the loop runs, and bites when it does not."""
        drop_in = self.change_unit("watchdog", "WatchdogSec=10\nRestartSec=0")
        run("systemctl", "restart", UNIT)
        process = shown("MainPID")
        time.sleep(12)
        self.assertEqual((shown("MainPID"), shown("NRestarts")), (process, "0"))
        run("kill", "-STOP", process)
        wait_for(lambda: shown("NRestarts") == "1", "the watchdog")
        drop_in.unlink()
        run("systemctl", "daemon-reload")
        self.attest()

    def upgrade_and_roll_back(self):
        settings = SETTINGS.read_text()
        for package in (self.next_agent, self.agent):
            process = shown("MainPID")
            run("dpkg", "--force-confdef", "--force-confold", "--install", package)
            self.assertNotEqual(shown("MainPID"), process)
            self.assertEqual(SETTINGS.read_text(), settings)
            self.attest()

    def purge(self):
        run("dpkg", "--remove", "attestation-agent")
        self.assertEqual(subprocess.run(["pgrep", "attestation_age"], check=False).returncode, 1)
        self.assertIn("card7", SETTINGS.read_text())
        shutil.rmtree(TLS)  # the operator's own
        shutil.rmtree(f"/run/systemd/system/{UNIT}.d")
        self.assertEqual(len(semaphore_sets()), 2)
        # Somebody looks at the cache's metadata meanwhile: its lock stays his.
        with open("/dev/shm/ima_cache_meta", "r+b") as file, mmap.mmap(file.fileno(), 0):
            run("dpkg", "--purge", "attestation-agent", "attestctl")
        self.assertEqual(len(semaphore_sets()), 1)
        run("systemctl", "daemon-reload")
        self.assertEqual(files_of_it() - self.files_before, set())


if __name__ == "__main__":
    unittest.main()
