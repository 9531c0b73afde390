"""System calls of the extension that fail, by strace(1), and memory that runs out, while applications connect.

What a call can fail with is in its manual page; the ones that could only follow from a mistake of ours (EBADF,
EFAULT) are left out.
"""

import random
import signal
import subprocess
from typing import NamedTuple

import neighbours
import torture
from Laboratory.ostravel import RULES_ARE_SET
from neighbours import Connections

# Which call of each thread fails: a single one, or all from one on.
OCCASIONS = ("1", "2", "4", "10+", "40+")

ERRORS = {
    "accept4": ("EMFILE", "ENFILE", "ENOBUFS"),
    "bind": ("EADDRINUSE",),
    "bpf": ("EPERM", "ENOMEM"),
    "capget": ("EPERM",),
    "clone": ("EAGAIN",),
    "clone3": ("EAGAIN",),
    "close": ("EIO",),
    "connect": ("EADDRNOTAVAIL", "ECONNREFUSED", "EAGAIN", "EPERM"),
    "epoll_ctl": ("ENOMEM", "ENOSPC"),
    "epoll_wait": ("EINTR",),
    "eventfd2": ("EMFILE",),
    "fcntl": ("EPERM",),
    "getpeername": ("ENOTCONN",),
    "getrandom": ("EINTR",),
    "getsockname": ("ENOBUFS",),
    "getsockopt": ("ENOBUFS",),
    "ioctl": ("ENOTTY",),
    "listen": ("EADDRINUSE",),
    "mmap": ("ENOMEM",),
    "newfstatat": ("EACCES",),
    "openat": ("EMFILE", "EACCES", "ENOENT"),
    "pidfd_open": ("EMFILE",),
    "pipe2": ("EMFILE", "ENFILE"),
    "poll": ("EINTR",),
    "ppoll": ("EINTR",),
    "prctl": ("EPERM",),
    "read": ("EIO", "EINTR"),
    "readlink": ("EACCES",),
    "recvfrom": ("ENOBUFS", "ECONNRESET", "EAGAIN"),
    "recvmmsg": ("ENOBUFS", "EAGAIN", "ENOMEM"),
    "recvmsg": ("ENOBUFS", "EAGAIN", "ECONNRESET"),
    "sendmsg": ("ENOBUFS", "EPIPE", "EAGAIN"),
    "sendto": ("ENOBUFS", "EPERM", "EAGAIN"),
    "setsockopt": ("ENOPROTOOPT", "ENOMEM"),
    "shutdown": ("ENOTCONN",),
    "socket": ("EMFILE", "ENOBUFS", "EACCES"),
    "splice": ("EINVAL", "ENOMEM"),
    "statx": ("EACCES",),
    "timerfd_create": ("EMFILE",),
    "timerfd_settime": ("EINVAL",),
    "write": ("ENOSPC", "EPIPE", "EINTR"),
}

# So that none of them waits for another.
RATE = 60
# With a tracer, on a busy machine.
START_SECONDS = 30
END_SECONDS = 8


class Fault(NamedTuple):
    call: str
    error: str
    occasion: str
    # The guardian kills the extension when it cannot serve its queue; it says so.
    deaths = (signal.SIGKILL,)
    silent_deaths = ()

    def __str__(self):
        return f"{self.call} {self.error} {self.occasion}"

    def is_about(self, call):
        return self.call == call

    @property
    def prefix(self):
        """Prefix of the extension's command. The tracer is a grandchild, so the command is our child."""
        return (
            "strace", "-D", "-f", "-qqq", "--seccomp-bpf", "-o", "/dev/null",
            "-e", f"trace={self.call}",
            "-e", f"inject={self.call}:error={self.error}:when={self.occasion}",
        )  # fmt: skip


# What a program of several threads may allocate before it carries its first flow, and until it ends here.
MOST_ALLOCATIONS = 40_000
# How many allocations fail in a row: one, a thread's worth of them, and all that follow.
SHORTAGES = (0, 20, 10**9)


class MemoryFault(NamedTuple):
    """Memory runs out at an allocation, and at a number of those that follow."""

    number: int
    more: int
    library: str
    # A program that cannot go on without memory ends at once, and the kernel removes its rules.
    # Even its last words may need memory. libseccomp 2.5 uses what it is given, at the start.
    deaths = (signal.SIGKILL, signal.SIGABRT, signal.SIGSEGV)
    silent_deaths = (signal.SIGABRT, signal.SIGSEGV)

    def __str__(self):
        return f"allocation {self.number}+{self.more}"

    def is_about(self, _call):
        return False

    @property
    def prefix(self):
        return (
            "env", f"LD_PRELOAD={self.library}",
            f"OSTRAVEL_FAILING_ALLOCATION={self.number}+{self.more}",
        )  # fmt: skip


def draw_memory_faults(count, seed, library):
    """Early allocations as often as late ones, of which there are more."""
    moments = random.Random(seed)
    for _ in range(count):
        number = round(MOST_ALLOCATIONS ** moments.random())
        yield MemoryFault(number, moments.choice(SHORTAGES), library)


# A signal does not interrupt every call, a descriptor that was reported as ready does not stay unready, and
# a connected socket has a peer.
PASSING = ("EINTR", "EAGAIN", "getpeername")

FAULTS = tuple(
    Fault(call, error, occasion)
    for call, errors in ERRORS.items()
    for error in errors
    for occasion in OCCASIONS
    if not {call, error}.intersection(PASSING) or not occasion.endswith("+")
)


class Suffered(NamedTuple):
    """The effects of a fault."""

    fault: Fault | MemoryFault
    is_refused: bool
    connections: Connections
    # Of the extension: negative if a signal has ended it, None if it did not end when requested.
    status: int | None
    # It ended before that was requested.
    has_died: bool
    has_left_rules: bool
    last_words: list

    @property
    def is_explained(self):
        # Before main(), the dynamic loader says it, and names the program by its path.
        return self.last_words[-1:] and "ostravel-extension: " in self.last_words[-1]

    def promises(self):
        """Pairs of a text and True if it is kept."""
        connections = self.connections
        signal_number = -self.status if self.status is not None and self.status < 0 else 0
        # Before there are rules, its end affects no connection.
        is_crash = signal_number not in (0, *self.fault.deaths) or (
            signal_number == signal.SIGSEGV and not self.is_refused
        )
        # A write that fails may be its last words.
        is_explained = (
            self.is_explained
            or signal_number in self.fault.silent_deaths
            or (signal_number == signal.SIGKILL and self.fault.is_about("write"))
        )
        return [
            ("no connect fails", connections.failed == 0 and connections.count > 0),
            # The last packet that is sent again leaves after 3 s.
            ("every connect within 3.9 s", connections.slowest <= 3.9),
            # The tunnels in flight end with it.
            ("at most one connection is reset", connections.reset <= 1 or signal_number == signal.SIGABRT),
            ("it ends on request", self.status is not None),
            ("it does not crash", not is_crash),
            ("it says why it does not start", not self.is_refused or is_explained),
            ("no rules are left", not self.has_left_rules),
        ]  # fmt: skip


def suffer(laboratory, fault, seconds=1.2):
    """Runs the system with a fault. The laboratory is prepared by neighbours.prepare()."""
    laboratory.start_sidecar()
    configuration = laboratory.write_configuration("{}", "quiet.json")
    extension = laboratory.run_extension(
        "--log", "stderr", "--configuration", configuration, prefix=fault.prefix
    )
    has_started = bool(extension.errors.wait(lambda line: RULES_ARE_SET in line, 0, START_SECONDS))
    if has_started:
        # The first probe, and the test of the proxy.
        torture.pause(1)
    # A write that fails may be the line that says it.
    has_started = has_started or laboratory.has_rules()
    with torture.application(laboratory, RATE) as load:
        torture.pause(seconds)
        connections = load.end()
    has_died = extension.process.poll() is not None
    if not has_died:
        extension.send_signal(signal.SIGTERM)
    try:
        status = extension.wait(END_SECONDS)
    except subprocess.TimeoutExpired:
        status = None
        extension.kill()
    has_left_rules = laboratory.has_rules()
    return Suffered(
        fault, not has_started, connections, status, has_died, has_left_rules,
        extension.errors.since()[-3:],
    )  # fmt: skip
