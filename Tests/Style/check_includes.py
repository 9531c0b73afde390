#!/usr/bin/env python3
"""Includes follow the link graph.

Prints each include that crosses it the wrong way and fails if there is one. Also holds what makes
the core deterministic: it asks its platform for the time, for randomness and for threads, so the
headers that offer them are out of its reach.

Usage: check_includes.py ROOT
"""

import pathlib
import re
import sys
from dataclasses import dataclass

import repository

BASE = "Base"
INTERFACE = "Platform/Interface"
CORE = "Extension/ProxyTunnelCore"
PROVIDER = "Extension/FilterDataProvider"
SHARED = "Platform/Shared"

# Folder -> the folders whose headers it may include.
ALLOWED_FOLDERS = {
    INTERFACE: {INTERFACE},
    CORE: {CORE, INTERFACE},
    PROVIDER: {PROVIDER, CORE, INTERFACE},
    SHARED: {SHARED, INTERFACE},
    BASE: {BASE},
    "Platform/Linux": {"Platform/Linux", SHARED, INTERFACE, BASE},
    "Platform/macOS": {"Platform/macOS", SHARED, INTERFACE},
    "Platform/Simulation": {"Platform/Simulation", SHARED, INTERFACE},
    "Companion": {"Companion", BASE},
}

THREAD_HEADERS = {"thread", "future", "stop_token", "condition_variable", "semaphore", "latch",
                  "barrier", "pthread.h"}
CLOCK_HEADERS = {"ctime", "time.h", "sys/time.h", "sys/timerfd.h"}
RANDOM_HEADERS = {"random", "sys/random.h"}

# Folder -> headers that it may not include, whoever offers them.
FORBIDDEN_HEADERS = {
    INTERFACE: THREAD_HEADERS | CLOCK_HEADERS | RANDOM_HEADERS,
    CORE: THREAD_HEADERS | CLOCK_HEADERS | RANDOM_HEADERS,
    PROVIDER: THREAD_HEADERS | CLOCK_HEADERS | RANDOM_HEADERS,
    "Platform/Simulation": THREAD_HEADERS | CLOCK_HEADERS,
}

# Folder -> the only headers from outside the standard library that it may include.
ALLOWED_FOREIGN_HEADERS = {
    INTERFACE: set(),
    CORE: {"arpa/inet.h", "fcntl.h", "jansson.h", "sys/socket.h"},
    PROVIDER: set(),
}

# Folder -> headers that its build makes, which have no path from the root.
GENERATED_HEADERS = {
    "Platform/Linux": {"ConnectTracerProgram.h", "ConnectTracerPlainProgram.h"},
}

# <chrono> is welcome for its durations, its clocks are not.
CLOCK_READING = re.compile(r"\b\w*_clock::now\b")
CLOCKLESS_FOLDERS = {INTERFACE, CORE, PROVIDER, "Platform/Simulation"}

INCLUDE = re.compile(r'^\s*#\s*(?:include|import)\s*(?:"([^"]+)"|<([^>]+)>)')


@dataclass(frozen=True)
class Finding:
    path: pathlib.Path
    line: int
    message: str

    def __str__(self) -> str:
        return f"{self.path}:{self.line}: {self.message}"


def folder_of(path: str) -> str | None:
    """The folder of the link graph that a path from the root belongs to."""
    for folder in ALLOWED_FOLDERS:
        if path.startswith(folder + "/"):
            return folder
    return None


def is_of_standard_library(header: str) -> bool:
    return re.fullmatch(r"[a-z_0-9]+", header) is not None


def judge_quoted(root: pathlib.Path, folder: str, header: str) -> str | None:
    if header in GENERATED_HEADERS.get(folder, set()):
        return None
    target = folder_of(header)
    if target is None:
        if (root / header).is_file():
            return f"{folder} may not include {header}"
        return f'"{header}" is not a path from the root of the repository'
    if target not in ALLOWED_FOLDERS[folder]:
        return f"{folder} may not include {target}"
    return None


def judge_angled(folder: str, header: str) -> str | None:
    if header in FORBIDDEN_HEADERS.get(folder, set()):
        return f"{folder} may not include <{header}>: it asks the platform"
    allowed = ALLOWED_FOREIGN_HEADERS.get(folder)
    if allowed is not None and not is_of_standard_library(header) and header not in allowed:
        return f"{folder} may not include <{header}>"
    return None


def check_file(root: pathlib.Path, path: pathlib.Path) -> list[Finding]:
    folder = folder_of(path.as_posix())
    if folder is None:
        return []
    findings = []
    text = (root / path).read_text(encoding="utf-8")
    for number, line in enumerate(text.splitlines(), start=1):
        message = None
        include = INCLUDE.match(line)
        if include:
            quoted, angled = include.groups()
            message = (judge_quoted(root, folder, quoted) if quoted
                       else judge_angled(folder, angled))
        elif folder in CLOCKLESS_FOLDERS and CLOCK_READING.search(line):
            message = f"{folder} may not read a clock: it asks the platform"
        if message:
            findings.append(Finding(path, number, message))
    return findings


def check(root: pathlib.Path) -> list[Finding]:
    return [finding for path in repository.sources(root) for finding in check_file(root, path)]


def main() -> int:
    root = pathlib.Path(sys.argv[1])
    paths = [path for path in repository.sources(root) if folder_of(path.as_posix())]
    if not paths:
        print("nothing to check", file=sys.stderr)
        return 1
    findings = check(root)
    for finding in findings:
        print(finding)
    print(f"{len(paths)} files, {len(findings)} findings")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
