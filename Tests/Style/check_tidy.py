#!/usr/bin/env python3
"""clang-tidy has nothing to say about our sources.

Usage: check_tidy.py ROOT BUILD_FOLDER CLANG_TIDY FOLDER...

Takes the sources of these folders from the build's compile_commands.json. Only what decides how a
source is read is kept of its command, so that it does not matter with which compiler, warnings and
sanitizers the build was made.
"""

import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

PROCESSES = 2
KEPT_WITH_VALUE = ("-isystem", "-include", "-I", "-D")
KEPT_PREFIXES = ("-I", "-D", "-std=", "-isystem",
                 # Objective-C++ here is read with another runtime than the compiler's own.
                 "-fblocks", "-fobjc-runtime=", "-fconstant-string-class=")


def portable_arguments(command: str, source: str) -> list[str]:
    given = shlex.split(command)
    kept = ["clang++"]
    index = 1
    while index < len(given):
        argument = given[index]
        if argument in KEPT_WITH_VALUE:
            kept += [argument, given[index + 1]]
            index += 1
        elif argument.startswith(KEPT_PREFIXES):
            kept.append(argument)
        index += 1
    return [*kept, "-w", "-c", source]


def chosen_entries(root: pathlib.Path, build: pathlib.Path, folders: list[str]) -> list[dict]:
    entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    chosen = {}
    for entry in entries:
        source = pathlib.Path(entry["directory"], entry["file"]).resolve()
        if any(source.is_relative_to(root / folder) for folder in folders):
            chosen.setdefault(
                str(source), {"directory": entry["directory"], "file": str(source),
                              "arguments": portable_arguments(entry["command"], str(source))})
    return list(chosen.values())


def main() -> int:
    root, build = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2])
    clang_tidy, folders = sys.argv[3], sys.argv[4:]
    entries = chosen_entries(root, build, folders)
    for folder in folders:
        if not any(pathlib.Path(entry["file"]).is_relative_to(root / folder)
                   for entry in entries):
            print(f"the build compiles nothing of {folder}", file=sys.stderr)
            return 1

    with tempfile.TemporaryDirectory() as database:
        pathlib.Path(database, "compile_commands.json").write_text(json.dumps(entries),
                                                                   encoding="utf-8")

        header_filter = f"--header-filter=^{re.escape(str(root))}/(Extension|Platform|Companion)/"

        def tidy(entry: dict) -> subprocess.CompletedProcess:
            command = [clang_tidy, "--quiet", f"--config-file={root / '.clang-tidy'}",
                       header_filter, "-p", database, entry["file"]]
            return subprocess.run(command, capture_output=True, text=True, check=False)

        # The big ones first, so that both processes end at about the same time.
        entries.sort(key=lambda entry: os.path.getsize(entry["file"]), reverse=True)
        with concurrent.futures.ThreadPoolExecutor(PROCESSES) as pool:
            results = list(pool.map(tidy, entries))

    failures = [result for result in results if result.returncode != 0]
    for result in failures:
        print(result.stdout, result.stderr)
    print(f"{len(entries)} sources, {len(failures)} with findings")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
