#!/usr/bin/env python3
"""The clang-tidy check reports what it is there to report, whatever compiler made the build.

Usage: check_tidy_test.py ROOT CLANG_TIDY
"""

import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT, CLANG_TIDY = (pathlib.Path(argument) for argument in sys.argv[1:3])
CHECK = pathlib.Path(__file__).with_name("check_tidy.py")


class TidyCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        shutil.copy(ROOT / ".clang-tidy", self.root)
        (self.root / "Companion").mkdir()
        self.entries = []

    def add(self, name, text, flags=""):
        path = self.root / "Companion" / name
        path.write_text(text, encoding="utf-8")
        if path.suffix in (".cpp", ".mm"):
            self.entries.append({
                "directory": str(self.root), "file": str(path),
                "command": f"/usr/bin/g++ -I{self.root} -std=c++20 {flags} -o x.o -c {path}"})

    def run_check(self, *folders):
        (self.root / "compile_commands.json").write_text(json.dumps(self.entries),
                                                         encoding="utf-8")
        command = [sys.executable, "-B", CHECK, self.root, self.root, CLANG_TIDY, *folders]
        return subprocess.run(command, capture_output=True, text=True, check=False)

    def test_a_sound_source_passes(self):
        self.add("Sound.cpp", "int answer() {\n  return 42;\n}\n")
        result = self.run_check("Companion")
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("1 sources, 0 with findings", result.stdout)

    def test_flags_and_warnings_of_the_build_do_not_matter(self):
        self.add("Sound.cpp", "int answer() {\n  int unused;\n  return 42;\n}\n",
                 "-Wall -Werror -Wduplicated-branches -fanalyzer -fsanitize=address -O2")
        result = self.run_check("Companion")
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_blocks_are_read(self):
        self.add("Block.mm", "int answer() {\n  return ^{ return 42; }();\n}\n",
                 "-fblocks -fobjc-runtime=gcc")
        result = self.run_check("Companion")
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_a_use_after_a_move_is_found(self):
        self.add("Moved.cpp", "#include <string>\n#include <utility>\n"
                              "void take(std::string text);\n"
                              "std::size_t misuse(std::string text) {\n"
                              "  take(std::move(text));\n  return text.size();\n}\n")
        result = self.run_check("Companion")
        self.assertEqual(result.returncode, 1)
        self.assertIn("bugprone-use-after-move", result.stdout)

    def test_a_finding_in_our_own_header_counts(self):
        self.add("Derived.h", "#pragma once\n"
                              "struct Base {\n  virtual ~Base() = default;\n"
                              "  virtual void run();\n};\n"
                              "struct Derived : Base {\n  virtual void run();\n};\n")
        self.add("Derived.cpp", '#include "Companion/Derived.h"\n')
        result = self.run_check("Companion")
        self.assertEqual(result.returncode, 1)
        self.assertIn("modernize-use-override", result.stdout)

    def test_only_the_source_with_a_finding_is_reported(self):
        for name in ("First", "Second", "Third", "Fourth"):
            self.add(f"{name}.cpp", f"const char* {name.lower()} = nullptr;\n")
        self.add("Fifth.cpp", "const char* fifth = 0;\n")
        result = self.run_check("Companion")
        self.assertEqual(result.returncode, 1)
        self.assertIn("modernize-use-nullptr", result.stdout)
        self.assertIn("5 sources, 1 with findings", result.stdout)

    def test_sources_may_have_helpers_of_one_name(self):
        for name in ("First", "Second"):
            self.add(f"{name}.cpp", "namespace {\nint answer() {\n  return 42;\n}\n}\n"
                                    f"int {name.lower()}() {{\n  return answer();\n}}\n")
        result = self.run_check("Companion")
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("2 sources, 0 with findings", result.stdout)

    def test_a_use_elsewhere_does_not_hide_an_unused_declaration(self):
        self.add("Values.h", "#pragma once\nnamespace values {\nstruct Value {};\n}\n")
        include = '#include "Companion/Values.h"\n'
        self.add("ANotUsing.cpp", include + "using values::Value;\n")
        self.add("BUsing.cpp", include + "using values::Value;\nValue first() {\n  return {};\n}\n")
        self.add("CNaming.cpp", include + "values::Value second() {\n  return {};\n}\n")
        result = self.run_check("Companion")
        self.assertEqual(result.returncode, 1)
        self.assertIn("misc-unused-using-decls", result.stdout)
        self.assertIn("3 sources, 1 with findings", result.stdout)

    def test_a_source_that_cannot_be_read_fails(self):
        self.add("Broken.cpp", '#include "Companion/Missing.h"\n')
        self.assertEqual(self.run_check("Companion").returncode, 1)

    def test_a_folder_without_sources_fails(self):
        self.add("Sound.cpp", "int answer() {\n  return 42;\n}\n")
        self.assertEqual(self.run_check("Companion", "Elsewhere").returncode, 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
