"""What `cmake --install` lays out: documents that say what the programs do, programs that are hardened, a unit that is
confined."""
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

import yaml

SOURCE = pathlib.Path(__file__).resolve().parents[2]
TOOLS = ("attest-provision", "attest-trace", "attest-cache")
AGENT_ROOMS = ("agent", "bmc", "boot_log", "ima", "ima_cache", "platform", "trust_anchor")
OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]*")


def run(*command, **keywords):
    return subprocess.run(command, capture_output=True, text=True, check=False, **keywords)


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.root = pathlib.Path(directory.name)
        done = run("cmake", "--install", os.environ["ATTEST_BUILD_DIR"], "--prefix", "/usr",
                   env={**os.environ, "DESTDIR": directory.name})
        assert done.returncode == 0, done.stdout + done.stderr
        cls.programs = {path.name: path for folder in ("bin", "sbin") for path in (cls.root / "usr" / folder).iterdir()}

    def help_of(self, program, *command):
        return run(self.programs[program], *command, "--help").stdout

    def commands_of(self, program):
        return set(re.findall(r"^  ([a-z][a-z-]*)(?: [A-Z]+)?  +", self.help_of(program), re.M))

    def test_every_setting_is_in_the_settings_file_the_manual_and_the_readme(self):
        read = {name for room in AGENT_ROOMS for path in (SOURCE / room).rglob("*.cc")
                for name in re.findall(r'"(ATTEST_[A-Z_]+)"', path.read_text())}
        documents = {"settings file": (self.root / "etc/default/attestation_agent", r"^#(ATTEST_[A-Z_]+)="),
                     "manual": (SOURCE / "packaging/man/attestation_agent.8", r"^\.B.*?(ATTEST_[A-Z_]+)"),
                     "README": (SOURCE / "README.md", r"^\|.*?(ATTEST_[A-Z_]+)")}
        for document, (path, pattern) in documents.items():
            with self.subTest(document):
                rows = "\n".join(line for line in path.read_text().splitlines() if re.search(pattern, line))
                self.assertEqual(set(re.findall(r"ATTEST_[A-Z_]+", rows)), read)

    def test_manual_pages_and_help_name_the_same_options_and_commands(self):
        self.assertEqual(set(self.programs), {"attestation_agent", "attestctl", *TOOLS})
        for program in self.programs:
            with self.subTest(program):
                page, = (self.root / "usr/share/man").glob(f"man*/{program}.[18]")
                warnings = run("man", "--warnings", "--local-file", "-Tutf8", page, env={**os.environ, "MANWIDTH": "80"})
                self.assertEqual(warnings.stderr, "")
                text = page.read_text().replace("\\-", "-")
                commands = self.commands_of(program)
                helps = self.help_of(program)
                if program == "attestctl":
                    helps += "".join(self.help_of(program, command) for command in commands)
                self.assertEqual(set(OPTION.findall(text)), set(OPTION.findall(helps)))
                section = re.search(r"^\.SH COMMANDS$(.*?)^\.SH", text, re.M | re.S)
                described = set(re.findall(r"^\.BI? ([a-z-]+)", section.group(1), re.M)) if section else set()
                self.assertEqual(described, commands)

    def complete(self, line, directory):
        """What bash offers behind `line`."""
        words = line.split(" ")
        script = (f"cd {directory}; . {self.root}/usr/share/bash-completion/completions/{words[0]}\n"
                  f"COMP_WORDS=({line}{'' if words[-1] else chr(34) * 2}); "
                  f"COMP_CWORD={len(words) - 1}\n"
                  f"_attest {words[0]} '{words[-1]}' '{words[-2]}'; printf '%s\\n' \"${{COMPREPLY[@]}}\"")
        folders = f"{self.root}/usr/bin:{self.root}/usr/sbin"
        done = run("bash", "-euc", script, env={**os.environ, "PATH": f"{folders}:{os.environ['PATH']}"})
        self.assertEqual(done.stderr, "")
        return set(done.stdout.split())

    def test_completion_offers_what_help_says(self):
        with tempfile.TemporaryDirectory() as directory:
            (pathlib.Path(directory) / "root.pem").touch()
            (pathlib.Path(directory) / "folder").mkdir()
            for program in self.programs:
                self.assertEqual(self.complete(f"{program} ", directory), self.commands_of(program), program)
                self.assertEqual(self.complete(f"{program} --", directory), set(OPTION.findall(self.help_of(program))),
                                 program)
            for line, offered in {"attestctl pcrs --pc": {"--pcr"}, "attestctl boot-log --pc": set(),
                                  "attestctl attest --root ": {"root.pem", "folder"}, "attestctl --timeout ": set(),
                                  "attest-provision --dir ": {"folder"}, "attest-provision --force --ch": {"--check"},
                                  "attest-cache --dir folder v": {"verify"}}.items():
                self.assertEqual(self.complete(line, directory), offered, line)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd here")
    def test_the_unit_is_valid_and_confined(self):
        text = (self.root / "usr/lib/systemd/system/attestation_agent.service").read_text()
        self.assertIn("ExecStart=/usr/sbin/attestation_agent\n", text)
        unit = self.root / "attestation_agent.service"
        unit.write_text(text.replace("=/usr/sbin/", f"={self.root}/usr/sbin/"))
        verified = run("systemd-analyze", "verify", "--man=no", unit)
        self.assertEqual((verified.returncode, verified.stderr), (0, ""))
        judged = run("systemd-analyze", "security", "--offline=true", "--threshold=20", "--no-pager", unit)
        self.assertEqual(judged.returncode, 0, judged.stdout)

    @unittest.skipUnless(shutil.which("journalctl"), "no journal here")
    def test_the_catalog_says_what_to_do_for_each_system_message(self):
        begin = re.search(r'MESSAGE_ID_BEGIN = "(\w+)"', (SOURCE / "platform/linux/message_log.cc").read_text())[1]
        records = re.findall(r'record\(\s*(\d), "([A-Z_]+)"', (SOURCE / "agent/system_messages.cc").read_text())
        expected = {f"{begin}1ca0000{number}" for number, _ in records}
        self.assertEqual(len(expected), 5)
        (self.root / "var/lib/systemd/catalog").mkdir(parents=True, exist_ok=True)
        updated = run("journalctl", f"--root={self.root}", "--update-catalog")
        self.assertEqual((updated.returncode, updated.stderr), (0, ""))
        dumped = run("journalctl", f"--root={self.root}", "--dump-catalog").stdout
        self.assertEqual(set(re.findall(r"^-- (\w+)\nSubject: .+\nDefined-By: attestation_agent\n", dumped, re.M)), expected)
        for entry in dumped.split("\n-- "):
            self.assertIn("\n@MESSAGE@\n", entry)
            for page in re.findall(r"man:([\w-]+)\((\d)\)", entry):
                self.assertTrue((self.root / "usr/share/man/man{1}/{0}.{1}".format(*page)).exists(), page)

    def test_container_files_agree_with_the_checkout_and_the_unit(self):
        container = SOURCE / "packaging/container"
        recipe = (container / "Containerfile").read_text().replace("\\\n", " ")
        steps = [line.split() for line in recipe.splitlines() if line and line[0] != "#"]
        self.assertLessEqual({step[0] for step in steps}, {"FROM", "COPY", "RUN", "WORKDIR", "ENTRYPOINT"})
        for command in (step for step in steps if step[0] == "RUN"):
            self.assertEqual(run("sh", "-n", "-c", " ".join(command[1:])).stderr, "")
        self.assertTrue((SOURCE / "scripts/package").is_file() and "/source/scripts/package" in recipe)
        pod = yaml.safe_load((container / "daemonset.yaml").read_text())["spec"]["template"]["spec"]
        agent, = pod["containers"]
        settings = (self.root / "etc/default/attestation_agent").read_text()
        for variable in agent["env"]:
            self.assertIn(f"\n#{variable['name']}=", settings)
        unit = (self.root / "usr/lib/systemd/system/attestation_agent.service").read_text()
        added = " ".join(f"CAP_{name}" for name in agent["securityContext"]["capabilities"]["add"])
        self.assertIn(f"CapabilityBoundingSet={added}\n", unit)
        self.assertEqual([mount["name"] for mount in agent["volumeMounts"]], [volume["name"] for volume in pod["volumes"]])
        self.assertNotIn(":", "".join(mount["mountPath"] for mount in agent["volumeMounts"]))

    def test_every_metric_is_documented_and_the_dashboard_asks_for_no_other(self):
        family = re.compile(r'(?:metric_kind::\w+,\s*|gauge\()"(attest_\w+)"')
        counted = {name for room in AGENT_ROOMS for path in (SOURCE / room).rglob("*.cc")
                   for name in family.findall(path.read_text())}
        described = {name for line in (SOURCE / "docs/metrics.md").read_text().splitlines() if line.startswith("| `attest_")
                     for name in re.findall(r"`(attest_\w+)`", line.split("|")[1])}
        self.assertEqual(described, counted)
        dashboard = json.loads((SOURCE / "packaging/grafana-dashboard.json").read_text())
        shown = {re.sub("_bucket$", "", name) for panel in dashboard["panels"] for target in panel["targets"]
                 for name in re.findall(r"\battest_\w+", target["expr"])}
        self.assertEqual(shown, counted)
        self.assertEqual(len({panel["id"] for panel in dashboard["panels"]}), len(dashboard["panels"]))

    def test_programs_are_hardened(self):
        for program, path in self.programs.items():
            with self.subTest(program):
                told = run("readelf", "--wide", "--file-header", "--program-headers", "--dynamic", "--dyn-syms",
                           path).stdout
                for what, pattern in {"PIE": r"\(FLAGS_1\).* PIE", "RELRO": r"GNU_RELRO", "bound at once": r"BIND_NOW",
                                      "stack protector": r"__stack_chk_fail", "fortified": r"__\w+_chk\b",
                                      "stack not executable": r"GNU_STACK.* RW "}.items():
                    self.assertRegex(told, pattern, what)


if __name__ == "__main__":
    unittest.main()
