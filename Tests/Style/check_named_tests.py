#!/usr/bin/env python3
"""Every test that the documentation names exists.

Usage: check_named_tests.py ROOT
"""

import pathlib
import re
import sys

import repository

DOCUMENT = pathlib.Path("Documentation/threat-model.md")
# As the documentation names them: `test_of_python` and `SuiteOfGoogleTest.ItsTest`.
NAMED = re.compile(r"`(test_\w+|[A-Z]\w*\.[A-Z]\w*)`")
PYTHON_TEST = re.compile(r"^\s*def (test_\w+)\(", re.MULTILINE)
GOOGLE_TEST = re.compile(r"^TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)


def named_tests(text: str) -> set[str]:
    return set(NAMED.findall(text))


def existing_tests(root: pathlib.Path) -> set[str]:
    found = set()
    for path in repository.files(root):
        if path.parts[0] != "Tests" or path.suffix not in (".py", ".cpp", ".mm"):
            continue
        text = (root / path).read_text(encoding="utf-8")
        found |= set(PYTHON_TEST.findall(text))
        found |= {f"{suite}.{name}" for suite, name in GOOGLE_TEST.findall(text)}
    return found


def main() -> int:
    root = pathlib.Path(sys.argv[1])
    named = named_tests((root / DOCUMENT).read_text(encoding="utf-8"))
    missing = sorted(named - existing_tests(root))
    for name in missing:
        print(f"{DOCUMENT}: there is no test {name}")
    if not named:
        print(f"{DOCUMENT}: names no test")
    return 1 if missing or not named else 0


if __name__ == "__main__":
    sys.exit(main())
