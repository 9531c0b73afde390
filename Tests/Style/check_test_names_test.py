#!/usr/bin/env python3
"""The check for the length of test names finds long ones."""

import pathlib
import tempfile
import unittest

import check_test_names


class TestNameCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        (self.root / "Tests").mkdir()

    def findings(self, length):
        """Of a test of each kind whose name has this length."""
        (self.root / "Tests/NameTest.cpp").write_text(
            f"TEST_F(Suite, {'N' * length}) {{}}\n", encoding="utf-8")
        (self.root / "Tests/test_name.py").write_text(
            f"def {'test_'.ljust(length, 'n')}():\n    pass\n", encoding="utf-8")
        return check_test_names.findings(self.root)

    def test_sixty_characters_are_accepted(self):
        self.assertEqual(self.findings(60), [])

    def test_one_more_is_too_long(self):
        self.assertEqual(len(self.findings(61)), 2)


if __name__ == "__main__":
    unittest.main()
