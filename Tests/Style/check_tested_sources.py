#!/usr/bin/env python3
"""A source has a test file of its name, or a line says where it is tested.

Headers need neither. `Room/Name.cpp` is tested in `Tests/Room/NameTest.cpp`, or in several files whose names begin with
`Name` and end with `Test`. Where there is none, a CMakeLists.txt at that place or further up says so:

    # Sources without a test file of their name are tested here:
    #   Name, Other        OtherPlaceTest, Tests/EndToEnd/test_place.py

Prints each source without either, and each such line that is not true.

Usage: check_tested_sources.py ROOT
"""

import pathlib
import re
import sys

import repository

BUILDINGS = {"Base", "Companion", "Extension", "Host", "Platform"}
SOURCES = {".cpp", ".mm"}
HEADING = "# Sources without a test file of their name are tested here:"
INDENT = "#   "


def tested_elsewhere(text: str) -> dict[str, list[str]]:
    """Source -> the places where it is tested, as a CMakeLists.txt says."""
    places = {}
    if HEADING not in text:
        return places
    pending = []
    for line in text.split(HEADING, 1)[1].splitlines()[1:]:
        if not line.startswith(INDENT):
            break
        names, _, where = re.sub(r"\s{2,}", "\t", line.removeprefix(INDENT)).partition("\t")
        pending += [name for name in re.split(r",\s*", names) if name]
        if where:
            places |= dict.fromkeys(pending, re.split(r",\s*", where))
            pending = []
    return places


def has_own_test(path: pathlib.Path, tests: set[pathlib.Path]) -> bool:
    return any(test.parent == "Tests" / path.parent and test.stem.startswith(path.stem)
               and test.stem.endswith("Test") for test in tests)


def check(root: pathlib.Path) -> list[str]:
    paths = repository.files(root)
    sources = [path for path in paths
               if path.parts[0] in BUILDINGS and path.suffix in SOURCES]
    tests = {path for path in paths if path.parts[0] == "Tests" and path.suffix in SOURCES}
    known_places = {test.stem for test in tests}
    untested = [path for path in sources if not has_own_test(path, tests)]
    findings = []
    for path in paths:
        if path.parts[0] != "Tests" or path.name != "CMakeLists.txt":
            continue
        folder = path.parent.relative_to("Tests")
        for name, places in tested_elsewhere((root / path).read_text(encoding="utf-8")).items():
            named = {other.with_suffix(".cpp") for other in paths
                     if other.stem == name and other.is_relative_to(folder)}
            if not named or any(has_own_test(source, tests) for source in named):
                findings.append(f"{path}: {name} has a test of its own or does not exist")
            untested = [source for source in untested if source.with_suffix(".cpp") not in named]
            findings += [f"{path}: {name} cannot be tested in {place}, which does not exist"
                         for place in places
                         if place not in known_places and not (root / place).exists()]
    findings += [f"{source}: has no test of its name, and nothing says where it is tested"
                 for source in untested]
    return findings


def main() -> int:
    return repository.report(check(pathlib.Path(sys.argv[1])))


if __name__ == "__main__":
    sys.exit(main())
