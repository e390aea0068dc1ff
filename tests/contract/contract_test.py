"""Clients are generated from the contract once and live for years: what it says may grow, and never change."""
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

    def test_every_field_has_presence(self):
        bare = [field for field in contract.fields(FILE) if not field[3].startswith(("optional ", "repeated "))]
        self.assertEqual(bare, [])


if __name__ == "__main__":
    unittest.main()
