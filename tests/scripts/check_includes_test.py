#!/usr/bin/python3
"""The include check on small trees, each with one include that the rules forbid or allow."""
import os
import subprocess
import sys
import tempfile
import unittest

CHECK = os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "..", "scripts", "check-includes")

# One of a kind: the rows of the rules are not said again.
FORBIDDEN = (
    ("platform/trace.h", '#include "platform/linux/trace_file.h"'),
    ("platform/trace.h", "#include <systemd/sd-event.h>"),
    ("platform/linux/levm.cc", '#include "agent/status.h"'),
    ("platform/tpm/client.cc", '#include "platform/rpc/calls.h"'),
    ("agent/status.cc", '#include "agent/handlers.h"'),
    ("agent/handlers.cc", '#include "platform/rpc/calls.h"'),
    ("agent/handlers.cc", '#include "api/remote_attestation_api.pb.h"'),
    ("boot_log/uptime.cc", '#  include "agent/handlers.h"'),
    ("ima/stream.cc", '#include "trust_anchor/pcr_quote.h"'),
    ("ima/stream.cc", "#include <protozero/varint.hpp>"),
    ("attestctl/client.cc", '#include "agent/status.h"'),
    ("tools/attest_trace/main.cc", '#include "agent/status.h"'),
    ("agent/main.cc", "#include <boost/asio.hpp>"),
    ("agent/main.cc", "#include AGENT_HEADER"),
    ("elsewhere/main.cc", "#include <cstdio>"),
)

ALLOWED = (
    ("platform/trace.h", '#include "platform/status.h"'),
    ("platform/linux/levm.cc", "#include <systemd/sd-event.h>"),
    ("agent/status.cc", '#include "platform/status.h"'),
    ("boot_log/uptime.cc", '#include "agent/debug_trace.h"'),
    ("boot_log/uptime.cc", "#include <sys/stat.h>"),
    ("ima_cache/block.cc", "#include <openssl/sha.h>"),
    ("attestctl/client.cc", '#include "api/remote_attestation_api.grpc.pb.h"'),
    ("tests/agent/handlers_test.cc", '#include "platform/rpc/calls.h"'),
    ("build/generated/api/a.pb.cc", '#include "agent/handlers.h"'),
)


class CheckIncludes(unittest.TestCase):
    def check(self, file, include):
        with tempfile.TemporaryDirectory() as root:
            os.makedirs(os.path.join(root, os.path.dirname(file)))
            with open(os.path.join(root, file), "w", encoding="utf-8") as source:
                source.write(f"// One line above.\n{include}\n")
            result = subprocess.run([CHECK, root], capture_output=True, text=True, check=False)
        return result.returncode, result.stdout

    def test_a_forbidden_include_is_named_with_its_line(self):
        for file, include in FORBIDDEN:
            with self.subTest(file=file, include=include):
                status, said = self.check(file, include)
                self.assertEqual(status, 1)
                self.assertRegex(said, rf"\A{file}:2: [^\n]+\n\Z")

    def test_an_allowed_include_passes(self):
        for file, include in ALLOWED:
            with self.subTest(file=file, include=include):
                self.assertEqual(self.check(file, include), (0, ""))


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
