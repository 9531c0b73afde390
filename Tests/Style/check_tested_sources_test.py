#!/usr/bin/env python3
"""The check for tested sources finds those that are not."""

import pathlib
import tempfile
import unittest

import check_tested_sources

HEADING = check_tested_sources.HEADING


class TestedSourceCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.write("Platform/Linux/Room/Name.cpp")
        self.write("Tests/Platform/Linux/Room/OtherTest.cpp")

    def write(self, path, *lines):
        (self.root / path).parent.mkdir(parents=True, exist_ok=True)
        (self.root / path).write_text("\n".join(lines) + "\n", encoding="utf-8")

    def findings(self):
        return check_tested_sources.check(self.root)

    def assert_one_finding(self, begin):
        findings = self.findings()
        self.assertEqual(len(findings), 1, findings)
        self.assertTrue(findings[0].startswith(begin), findings)

    def test_a_source_without_a_test_is_found(self):
        self.assert_one_finding("Platform/Linux/Room/Name.cpp: ")

    def test_a_test_of_its_name_in_the_same_place_is_enough(self):
        self.write("Tests/Platform/Linux/Room/NameTest.mm")
        self.assertEqual(self.findings(), [])

    def test_several_tests_may_share_a_source(self):
        self.write("Tests/Platform/Linux/Room/NameClosingTest.cpp")
        self.assertEqual(self.findings(), [])

    def test_a_test_in_another_place_does_not_count(self):
        self.write("Tests/Platform/Linux/NameTest.cpp")
        self.assert_one_finding("Platform/Linux/Room/Name.cpp: ")

    def test_a_line_may_say_where_it_is_tested(self):
        self.write("Tests/Platform/Linux/Room/CMakeLists.txt", HEADING, "#   Name   OtherTest", "x()")
        self.assertEqual(self.findings(), [])

    def test_the_line_may_be_further_up_and_name_several(self):
        self.write("Platform/Linux/Second/Two.mm")
        self.write("Tests/Platform/CMakeLists.txt", HEADING, "#   Name,", "#   Two   Tests/Platform")
        self.assertEqual(self.findings(), [])

    def test_a_place_that_does_not_exist_is_found(self):
        self.write("Tests/Platform/CMakeLists.txt", HEADING, "#   Name   OtherTest, NoTest")
        self.assert_one_finding("Tests/Platform/CMakeLists.txt: Name cannot be tested in NoTest")

    def test_a_line_that_is_not_needed_is_found(self):
        self.write("Tests/Platform/Linux/Room/NameTest.cpp")
        self.write("Tests/Platform/CMakeLists.txt", HEADING, "#   Name   OtherTest")
        self.assert_one_finding("Tests/Platform/CMakeLists.txt: Name has a test")

    def test_a_line_for_another_room_does_not_count(self):
        self.write("Tests/Base/CMakeLists.txt", HEADING, "#   Name   OtherTest")
        self.assertEqual(len(self.findings()), 2)

    def test_headers_need_no_test(self):
        self.write("Tests/Platform/Linux/Room/NameTest.cpp")
        self.write("Platform/Linux/Room/Interface.h")
        self.assertEqual(self.findings(), [])


if __name__ == "__main__":
    unittest.main()
