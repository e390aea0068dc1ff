"""attestctl's verdict on the recorded evidence, and on every case that is wrong in one point."""
import json
import os
import pathlib
import subprocess
import tempfile
import unittest

import vectors

PROGRAM = os.environ.get("ATTESTCTL", str(vectors.HERE.parents[1] / "build/release/attestctl/attestctl"))


def verdict(directory):
    done = subprocess.run([PROGRAM, "--json", "attest", "--from", directory, "--root", vectors.HERE / "roots.pem"],
                          capture_output=True, check=False)
    said = json.loads(done.stdout or "{}")
    return {"status": done.returncode, "words": done.stderr.decode(), "verified": said.get("verified"),
            "not_passed": {row["name"]: row["outcome"] for row in said.get("checks", []) if row["outcome"] != "pass"}}


class Vectors(unittest.TestCase):
    maxDiff = None

    def expect(self, directory, case):
        self.assertEqual(verdict(directory), {"status": 0 if case["verified"] else 1, "words": "",
                                              "verified": case["verified"], "not_passed": case["not_passed"]})

    def test_good_set(self):
        self.expect(vectors.HERE / "good", vectors.description()["good"])

    def test_each_case_fails_where_it_is_wrong(self):
        with tempfile.TemporaryDirectory() as folder:
            for case in vectors.description()["cases"]:
                with self.subTest(case["name"], what=case["what"]):
                    directory = pathlib.Path(folder) / case["name"]
                    vectors.write_case(case, directory)
                    self.expect(directory, case)


if __name__ == "__main__":
    unittest.main()
