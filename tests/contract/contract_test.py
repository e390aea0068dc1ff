"""Clients are generated from the contract once and live for years: what it says may grow, and never change."""
import re
import unittest

import contract

FILE = contract.read_proto()


class Contract(unittest.TestCase):
    def test_nothing_that_was_ever_recorded_has_changed_or_gone(self):
        lines = set(contract.record_lines(FILE))
        self.assertEqual([line for line in contract.RECORD.read_text().splitlines() if line not in lines], [],
                         "changed or gone: clients in the field break")

    def test_what_is_new_is_recorded(self):
        recorded = contract.RECORD.read_text().splitlines()
        self.assertEqual([line for line in contract.record_lines(FILE) if line not in recorded], [],
                         "run tests/contract/contract.py to record what is new")

    def test_guide_has_every_field_as_it_is(self):
        told, message = [], None
        for line in (contract.SOURCE / "docs" / "verifier-guide.md").read_text().splitlines():
            heading = re.fullmatch(r"#+ (.*)", line)
            row = re.fullmatch(r"\| (\d+) \| `(\w+)` \| ([\w ]+) \| .+ \|", line)
            if heading:
                message = heading.group(1)
            elif row:
                told.append((message, int(row.group(1)), row.group(2), row.group(3)))
        self.assertEqual(sorted(told), sorted(contract.fields(FILE)))

    def test_every_field_has_presence(self):
        bare = [field for field in contract.fields(FILE) if not field[3].startswith(("optional ", "repeated "))]
        self.assertEqual(bare, [])


if __name__ == "__main__":
    unittest.main()
