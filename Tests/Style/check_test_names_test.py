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
        text = f"TEST_F(Suite, {'N' * length}) {{}}\n"
        (self.root / "Tests/NameTest.cpp").write_text(text, encoding="utf-8")
        return check_test_names.findings(self.root)

    def test_sixty_characters_are_accepted(self):
        self.assertEqual(self.findings(60), [])

    def test_one_more_is_too_long(self):
        self.assertEqual(len(self.findings(61)), 1)


if __name__ == "__main__":
    unittest.main()
