#!/usr/bin/env python3
"""The check for machine paths finds them."""

import pathlib
import tempfile
import unittest

import check_machine_paths


class MachinePathCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.place = pathlib.Path("/somewhere/checkout")

    def mentions(self, text):
        (self.root / "file.txt").write_text(text, encoding="utf-8")
        return check_machine_paths.mentions(self.root, self.place)

    def test_a_mention_is_found_with_its_line(self):
        self.assertEqual(self.mentions("first\ncd /somewhere/checkout\n"),
                         ["file.txt:2: mentions /somewhere/checkout"])

    def test_a_file_below_is_a_mention(self):
        self.assertEqual(len(self.mentions("open('/somewhere/checkout/run')")), 1)

    def test_a_longer_name_is_none(self):
        self.assertEqual(self.mentions("/somewhere/checkouts /somewhere/checkout-2"), [])
        self.assertEqual(self.mentions("/else/somewhere/checkout"), [])

    def test_text_without_a_path_is_clean(self):
        self.assertEqual(self.mentions("checkout"), [])


if __name__ == "__main__":
    unittest.main()
