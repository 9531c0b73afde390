#!/usr/bin/env python3
"""clang-tidy has nothing to say about our sources.

Usage: check_tidy.py ROOT BUILD_FOLDER CLANG_TIDY FOLDER...

Takes the sources of these folders from the build's compile_commands.json. Only what decides how a
source is read is kept of its command, so that it does not matter with which compiler, warnings and
sanitizers the build was made.

Most of the time goes into the headers that sources share, so clang-tidy reads several sources as
one. If it has anything to say, each half is read again, down to a single source, whose findings
count: what is wrong only when read together, such as two helpers of one name, is not a finding.
"""

import concurrent.futures
import itertools
import json
import math
import os
import pathlib
import re
import shlex
import subprocess
import sys
from dataclasses import dataclass

PROCESSES = 2
# More save little, and cost much to read again when there is a finding.
SOURCES_IN_BATCH = 16
KEPT_WITH_VALUE = ("-isystem", "-include", "-I", "-D")
KEPT_PREFIXES = ("-I", "-D", "-std=", "-isystem",
                 # Objective-C++ here is read with another runtime than the compiler's own.
                 "-fblocks", "-fobjc-runtime=", "-fconstant-string-class=")
USING_DECLARATION = re.compile(r"^\s*using\s+[\w:]*::\w+;", re.MULTILINE)


@dataclass(frozen=True)
class Batch:
    sources: list[str]
    directory: str
    arguments: tuple[str, ...]

    def halves(self):
        middle = len(self.sources) // 2
        for sources in (self.sources[:middle], self.sources[middle:]):
            yield Batch(sources, self.directory, self.arguments)

    @property
    def size(self):
        return sum(map(os.path.getsize, self.sources))


def portable_arguments(command: str) -> tuple[str, ...]:
    given = shlex.split(command)
    kept = []
    index = 1
    while index < len(given):
        argument = given[index]
        if argument in KEPT_WITH_VALUE:
            kept += [argument, given[index + 1]]
            index += 1
        elif argument.startswith(KEPT_PREFIXES):
            kept.append(argument)
        index += 1
    return (*kept, "-w")


def chosen_sources(root: pathlib.Path, build: pathlib.Path, folders: list[str]) -> dict:
    """Source -> how it is compiled: its suffix, and the directory and arguments of the compiler."""
    entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    chosen = {}
    for entry in entries:
        source = pathlib.Path(entry["directory"], entry["file"]).resolve()
        if any(source.is_relative_to(root / folder) for folder in folders):
            chosen.setdefault(str(source), (source.suffix, entry["directory"],
                                            portable_arguments(entry["command"])))
    return chosen


def make_batches(chosen: dict) -> list[Batch]:
    """Sources that are read the same way.

    Of those with using declarations there is one in a batch at most, at its end: unused ones are only
    looked for there.
    """
    batches = []
    for (_, directory, arguments), group in itertools.groupby(
            sorted(chosen, key=chosen.get), chosen.get):
        using, plain = [], []
        for source in group:
            text = pathlib.Path(source).read_text(encoding="utf-8")
            (using if USING_DECLARATION.search(text) else plain).append(source)
        count = max(len(using), math.ceil(len(plain) / SOURCES_IN_BATCH))
        for number in range(count):
            sources = plain[number::count] + using[number:number + 1]
            batches.append(Batch(sources, directory, arguments))
    return batches


class Tidy:
    def __init__(self, root: pathlib.Path, clang_tidy: str):
        folders = "Base|Companion|Extension|Platform"
        self.command = [clang_tidy, "--quiet", f"--config-file={root / '.clang-tidy'}",
                        f"--header-filter=^{re.escape(str(root))}/({folders})/"]

    def findings(self, batch: Batch) -> list[str]:
        """What clang-tidy says, for each source about which it says something."""
        if len(batch.sources) == 1:
            said = self._run(batch)
            return [said] if said is not None else []
        if self._run(batch) is None:
            return []
        return [said for half in batch.halves() for said in self.findings(half)]

    def _run(self, batch: Batch) -> str | None:
        *before, last = batch.sources
        included = [argument for source in before for argument in ("-include", source)]
        done = subprocess.run([*self.command, last, "--", *batch.arguments, *included],
                              cwd=batch.directory, capture_output=True, text=True, check=False)
        return None if done.returncode == 0 else done.stdout + done.stderr


def main() -> int:
    root, build = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2])
    clang_tidy, folders = sys.argv[3], sys.argv[4:]
    chosen = chosen_sources(root, build, folders)
    for folder in folders:
        if not any(pathlib.Path(source).is_relative_to(root / folder) for source in chosen):
            print(f"the build compiles nothing of {folder}", file=sys.stderr)
            return 1

    # The big ones first, so that both processes end at about the same time.
    batches = sorted(make_batches(chosen), key=lambda batch: batch.size, reverse=True)
    tidy = Tidy(root, clang_tidy)
    with concurrent.futures.ThreadPoolExecutor(PROCESSES) as pool:
        findings = [said for part in pool.map(tidy.findings, batches) for said in part]

    for said in findings:
        print(said)
    print(f"{len(chosen)} sources, {len(findings)} with findings")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
