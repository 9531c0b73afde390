#!/usr/bin/env python3
"""Includes follow the link graph of the rooms.

A room is a folder with sources, without the folders in it. Prints each include that crosses the
graph the wrong way and each source that is in no room, and fails if there is one. Also holds what
makes the core deterministic: it asks its platform for the time, for randomness and for threads, so
the headers that offer them are out of its reach. And a source includes its own header first, which
shows that the header compiles alone.

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

SIMULATION = "Platform/Simulation"
SCHEDULE = f"{SIMULATION}/Schedule"
# The rooms that every room of a platform may include.
GROUND = {INTERFACE, BASE}

LINUX = "Platform/Linux"
KERNEL = f"{LINUX}/Kernel"
SERVICES = f"{LINUX}/Services"
STATISTICS = f"{LINUX}/Statistics"
CONTROL = f"{LINUX}/Control"
PROCESSES = f"{LINUX}/Processes"
INSPECTION = f"{LINUX}/Inspection"
TRACING = f"{LINUX}/Tracing"
IDENTITY = f"{LINUX}/Identity"
RELAY = f"{LINUX}/Relay"
LIVENESS = f"{LINUX}/Liveness"
NAMES = f"{LINUX}/Names"
INTERCEPTION = f"{LINUX}/Interception"

MAC = "Platform/macOS"
MAC_FOUNDATION = f"{MAC}/Foundation"
MAC_DISPATCH = f"{MAC}/Dispatch"
MAC_FLOW = f"{MAC}/Flow"
MAC_PROVIDER = f"{MAC}/Provider"

COMPANION = "Companion/Shared"
EVENTS = "Companion/Events"
WEB = "Companion/Monitor/Web"
HOST = "Host/macOS"

# Room -> the other rooms whose headers it may include, all of them further up in this table.
ALLOWED_ROOMS = {
    BASE: set(),
    INTERFACE: set(),
    CORE: {INTERFACE},
    PROVIDER: {CORE, INTERFACE},
    SHARED: {INTERFACE},
    SCHEDULE: {INTERFACE},
    SIMULATION: {SHARED, INTERFACE, SCHEDULE},

    KERNEL: GROUND,
    SERVICES: GROUND | {SHARED, KERNEL},
    STATISTICS: GROUND,
    CONTROL: GROUND | {KERNEL, STATISTICS},
    PROCESSES: GROUND | {KERNEL},
    INSPECTION: GROUND | {KERNEL, PROCESSES},
    TRACING: GROUND | {KERNEL, PROCESSES},
    IDENTITY: GROUND | {KERNEL, PROCESSES, TRACING},
    RELAY: GROUND | {SHARED, KERNEL, SERVICES, STATISTICS},
    LIVENESS: GROUND | {KERNEL, SERVICES, RELAY},
    NAMES: GROUND | {KERNEL, PROCESSES, IDENTITY},
    INTERCEPTION: GROUND | {KERNEL, SERVICES, PROCESSES, TRACING, IDENTITY, RELAY,
                            LIVENESS, NAMES, STATISTICS},
    LINUX: GROUND | {SHARED, SERVICES, RELAY, LIVENESS, INTERCEPTION, STATISTICS},

    MAC_FOUNDATION: {INTERFACE},
    MAC_DISPATCH: {INTERFACE, MAC_FOUNDATION},
    MAC_FLOW: {INTERFACE, SHARED, MAC_FOUNDATION, MAC_DISPATCH},
    MAC_PROVIDER: {INTERFACE, MAC_FOUNDATION, MAC_DISPATCH, MAC_FLOW},
    MAC: {INTERFACE, SHARED, MAC_FOUNDATION, MAC_DISPATCH},

    COMPANION: {BASE},
    "Companion/Sidecar": {BASE, COMPANION},
    "Companion/Fleet": {BASE, COMPANION},
    EVENTS: {BASE, COMPANION},
    WEB: {BASE, COMPANION, EVENTS},
    "Companion/Monitor": {BASE, COMPANION, EVENTS, WEB, "Companion/Fleet"},
    "Companion/Control": {BASE, COMPANION},
    HOST: {CORE},
}
# Puts everything together, and may therefore include everything except tests.
PROGRAM = "Extension/main"
# Of programs for the kernel, which include none of our headers except these.
KERNEL_HEADER = ".bpf.h"
# Every source below these is in a room.
BUILDINGS = ("Base/", "Companion/", "Extension/", "Host/", "Platform/")

THREAD_HEADERS = {"thread", "future", "stop_token", "condition_variable", "semaphore", "latch",
                  "barrier", "pthread.h"}
CLOCK_HEADERS = {"ctime", "time.h", "sys/time.h", "sys/timerfd.h"}
RANDOM_HEADERS = {"random", "sys/random.h"}

# Room -> headers that it may not include, from any library.
FORBIDDEN_HEADERS = {
    INTERFACE: THREAD_HEADERS | CLOCK_HEADERS | RANDOM_HEADERS,
    CORE: THREAD_HEADERS | CLOCK_HEADERS | RANDOM_HEADERS,
    PROVIDER: THREAD_HEADERS | CLOCK_HEADERS | RANDOM_HEADERS,
    SCHEDULE: THREAD_HEADERS | CLOCK_HEADERS,
    SIMULATION: THREAD_HEADERS | CLOCK_HEADERS,
}

# Room -> the only headers from outside the standard library that it may include.
ALLOWED_FOREIGN_HEADERS = {
    INTERFACE: set(),
    CORE: {"arpa/inet.h", "fcntl.h", "jansson.h", "sys/socket.h"},
    PROVIDER: set(),
}

# Room -> headers of other rooms that it may include although not the rooms as a whole: of the
# ground floor, neither threads nor descriptors.
ALLOWED_HEADERS = {
    CORE: {"Base/CalendarText.h", "Base/FlowIdentifier.h", "Base/JSONHandle.h", "Base/UTF8.h"},
    PROVIDER: {
        "Base/FlowIdentifier.h", "Base/ReferenceCounted.h", "Base/SharedText.h",
        "Base/SharedTexts.h", "Base/UTF8.h",
    },
    HOST: {"Base/PrintableText.h", "Base/UTF8.h"},
    # It listens where the extension expects a proxy.
    "Companion/Sidecar": {"Platform/Interface/SystemLimits.h"},
    SHARED: {"Base/UTF8.h"},
    STATISTICS: {"Platform/Linux/Kernel/FlowTuple.h"},
    MAC_FOUNDATION: {"Base/UTF8.h"},
    MAC_DISPATCH: {"Base/ProgrammingError.h"},
    MAC_FLOW: {"Base/ProgrammingError.h"},
}

# Room -> headers that its build makes, which have no path from the root.
GENERATED_HEADERS = {
    TRACING: {
        "ArrivalFilterProgram.h",
        "ConnectTableProgram.h",
        "ConnectTracerProgram.h",
        "ConnectTracerPlainProgram.h",
        "ScriptTracerProgram.h",
    },
}

# <chrono> is welcome for its durations, its clocks are not.
CLOCK_READING = re.compile(r"\b\w*_clock::now\b")
CLOCKLESS_ROOMS = {INTERFACE, CORE, PROVIDER, SCHEDULE, SIMULATION}

INCLUDE = re.compile(r'^\s*#\s*(?:include|import)\s*(?:"([^"]+)"|<([^>]+)>)')


@dataclass(frozen=True)
class Finding:
    path: pathlib.Path
    line: int
    message: str

    def __str__(self) -> str:
        return f"{self.path}:{self.line}: {self.message}"


def room_of(path: str) -> str | None:
    """The room that a path from the root belongs to."""
    folder = path.rpartition("/")[0]
    return folder if folder in ALLOWED_ROOMS else None


def is_of_standard_library(header: str) -> bool:
    return re.fullmatch(r"[a-z_0-9]+", header) is not None


def judge_quoted(root: pathlib.Path, room: str, header: str) -> str | None:
    if header in GENERATED_HEADERS.get(room, set()) | ALLOWED_HEADERS.get(room, set()):
        return None
    target = room_of(header)
    if target is None:
        if (root / header).is_file():
            return f"{room} may not include {header}"
        return f'"{header}" is not a path from the root of the repository'
    if target != room and target not in ALLOWED_ROOMS[room]:
        return f"{room} may not include {target}"
    return None


def judge_angled(room: str, header: str) -> str | None:
    if header in FORBIDDEN_HEADERS.get(room, set()):
        return f"{room} may not include <{header}>: it asks the platform"
    allowed = ALLOWED_FOREIGN_HEADERS.get(room)
    if allowed is not None and not is_of_standard_library(header) and header not in allowed:
        return f"{room} may not include <{header}>"
    return None


def check_own_header(root: pathlib.Path, path: pathlib.Path) -> list[Finding]:
    header = path.with_suffix(".h")
    if path.suffix == ".h" or not (root / header).is_file():
        return []
    for number, line in enumerate((root / path).read_text(encoding="utf-8").splitlines(), start=1):
        include = INCLUDE.match(line)
        if include:
            if include.group(1) == header.as_posix():
                return []
            return [Finding(path, number, f"the first include has to be {header}")]
    return [Finding(path, 1, f"{header} is not included")]


def check_file(root: pathlib.Path, path: pathlib.Path) -> list[Finding]:
    room = room_of(path.as_posix())
    if room is None:
        inside = (path.as_posix().startswith(BUILDINGS) and path.parent.as_posix() != PROGRAM
                  and not path.name.endswith(KERNEL_HEADER))
        return [Finding(path, 1, f"{path.parent} is not a room")] if inside else []
    findings = []
    text = (root / path).read_text(encoding="utf-8")
    for number, line in enumerate(text.splitlines(), start=1):
        message = None
        include = INCLUDE.match(line)
        if include:
            quoted, angled = include.groups()
            message = (judge_quoted(root, room, quoted) if quoted
                       else judge_angled(room, angled))
        elif room in CLOCKLESS_ROOMS and CLOCK_READING.search(line):
            message = f"{room} may not read a clock: it asks the platform"
        if message:
            findings.append(Finding(path, number, message))
    return findings


def check(root: pathlib.Path) -> list[Finding]:
    return [finding for path in repository.sources(root)
            for finding in check_own_header(root, path) + check_file(root, path)]


def main() -> int:
    root = pathlib.Path(sys.argv[1])
    paths = [path for path in repository.sources(root) if room_of(path.as_posix())]
    if not paths:
        print("nothing to check", file=sys.stderr)
        return 1
    findings = check(root)
    status = repository.report(findings)
    print(f"{len(paths)} files, {len(findings)} findings")
    return status


if __name__ == "__main__":
    sys.exit(main())
