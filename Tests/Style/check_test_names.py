#!/usr/bin/env python3
"""The name of a GoogleTest test can be taken in at a glance: it has at most 60 characters.

Usage: check_test_names.py ROOT
"""

import pathlib
import sys

import check_named_tests
import repository

LIMIT = 60


def findings(root: pathlib.Path) -> list[str]:
    return [f"{path}: {suite}.{name} has {len(name)} characters"
            for path in repository.sources(root) if path.parts[0] == "Tests"
            for suite, name in check_named_tests.GOOGLE_TEST.findall(
                (root / path).read_text(encoding="utf-8"))
            if len(name) > LIMIT]


def main() -> int:
    found = findings(pathlib.Path(sys.argv[1]))
    for finding in found:
        print(finding)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
