#!/usr/bin/env python3
"""The name of a test can be read at a glance: it has at most 60 characters.

Usage: check_test_names.py ROOT
"""

import pathlib
import sys

import check_named_tests
import repository

LIMIT = 60


def names_in(path: pathlib.Path, text: str) -> list[str]:
    if path.suffix == ".py":
        return check_named_tests.PYTHON_TEST.findall(text)
    return [name for _, name in check_named_tests.GOOGLE_TEST.findall(text)]


def findings(root: pathlib.Path) -> list[str]:
    return [f"{path}: {name} has {len(name)} characters"
            for path in repository.files(root)
            if path.suffix in repository.SOURCE_SUFFIXES | {".py"} and path.parts[0] == "Tests"
            for name in names_in(path, (root / path).read_text(encoding="utf-8"))
            if len(name) > LIMIT]


def main() -> int:
    return repository.report(findings(pathlib.Path(sys.argv[1])))


if __name__ == "__main__":
    sys.exit(main())
