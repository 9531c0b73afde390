#!/usr/bin/env python3
"""No file of the repository names the folder of this checkout.

Usage: check_machine_paths.py ROOT
"""

import pathlib
import re
import sys

import repository


def mention_of(folder: pathlib.Path) -> re.Pattern[bytes]:
    """The folder as a whole path, not as the beginning or the end of a longer name."""
    name = re.escape(str(folder).encode())
    return re.compile(rb"(?<![\w.-])" + name + rb"(?![\w-])")


def mentions(root: pathlib.Path, place: pathlib.Path) -> list[str]:
    """Where the files under root mention this place."""
    pattern = mention_of(place)
    found = []
    for path in repository.files(root):
        for number, line in enumerate((root / path).read_bytes().splitlines(), start=1):
            if pattern.search(line):
                found.append(f"{path}:{number}: mentions {place}")
    return found


def main() -> int:
    root = pathlib.Path(sys.argv[1])
    found = []
    for place in {root.absolute(), root.resolve()}:
        found += mentions(root, place)
    return repository.report(found)


if __name__ == "__main__":
    sys.exit(main())
