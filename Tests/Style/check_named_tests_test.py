#!/usr/bin/env python3
"""The check for named tests finds those that do not exist."""

import pathlib
import tempfile
import unittest

import check_named_tests


class NamedTestCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        (self.root / "Tests").mkdir()

    def existing(self, name, text):
        (self.root / "Tests" / name).write_text(text, encoding="utf-8")
        return check_named_tests.existing_tests(self.root)

    def test_names_are_those_in_backquotes(self):
        named = check_named_tests.named_tests("`test_one`, test_two, `Suite.Name`, `file.txt`")
        self.assertEqual(named, {"test_one", "Suite.Name"})

    def test_functions_of_python_are_tests(self):
        self.assertEqual(self.existing("test_a.py", "def test_one(x):\n  def helper(): pass\n"),
                         {"test_one"})

    def test_macros_of_google_test_are_tests(self):
        text = "TEST(Suite, One) {}\nTEST_F(Suite,\n       Two) {}\nTEST_P(Other, Three) {}\n"
        self.assertEqual(self.existing("ATest.cpp", text), {"Suite.One", "Suite.Two", "Other.Three"})

    def test_what_is_elsewhere_is_no_test(self):
        (self.root / "test_a.py").write_text("def test_one(): pass\n", encoding="utf-8")
        self.assertEqual(check_named_tests.existing_tests(self.root), set())


if __name__ == "__main__":
    unittest.main()
