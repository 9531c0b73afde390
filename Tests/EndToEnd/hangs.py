"""Ways to make the extension hang from outside, without its cooperation."""

import contextlib
import ctypes
import os
import pathlib
import platform
import re
import signal
import time

from laboratory import eventually

_libc = ctypes.CDLL(None, use_errno=True)
_libc.ptrace.restype = ctypes.c_long
_libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]


def is_running(process):
    """Whether any thread of the process can still run; none of one that has ended."""
    for task in pathlib.Path(f"/proc/{process.pid}/task").glob("*/stat"):
        try:
            state = task.read_text().rpartition(") ")[2][0]
        except OSError:  # the thread has ended
            continue
        if state in "RSD":
            return True
    return False


def stop(extension):
    """Returns when none of its threads does anything any more, which a busy machine may delay."""
    extension.send_signal(signal.SIGSTOP)
    eventually(lambda: not is_running(extension), "it is stopped")


def children_of(extension):
    """The extension's guardian, if it has one."""
    file = pathlib.Path(f"/proc/{extension.pid}/task/{extension.pid}/children")
    return [int(child) for child in file.read_text().split()]


def thread_of(extension, name):
    """The thread of that name."""
    (found,) = [
        int(task.name)
        for task in pathlib.Path(f"/proc/{extension.pid}/task").iterdir()
        if (task / "comm").read_text().strip() == name
    ]
    return found


def ptrace(request, thread, address=None, data=None):
    """See ptrace(2)."""
    if _libc.ptrace(request, thread, address, data) == -1:
        number = ctypes.get_errno()
        raise OSError(number, f"ptrace: {os.strerror(number)}")


PTRACE_DETACH = 17
PTRACE_GETREGS = 12
PTRACE_SETREGS = 13
PTRACE_SEIZE = 0x4206
PTRACE_INTERRUPT = 0x4207
WALL = 0x40000000  # linux/wait.h


class Registers(ctypes.Structure):
    """struct user_regs_struct of x86-64, sys/user.h."""

    _fields_ = [
        (name, ctypes.c_ulonglong)
        for name in (
            "r15 r14 r13 r12 rbp rbx r11 r10 r9 r8 rax rcx rdx rsi rdi orig_rax rip cs eflags rsp "
            "ss fs_base gs_base ds es fs gs"
        ).split()
    ]


def find_endless_loop(extension):
    """The address of an instruction that jumps to itself, somewhere in the program's code."""
    with open(f"/proc/{extension.pid}/mem", "rb", 0) as memory:
        for line in pathlib.Path(f"/proc/{extension.pid}/maps").read_text().splitlines():
            addresses, permissions, *_ = line.split()
            begin, end = (int(address, 16) for address in addresses.split("-"))
            if "x" not in permissions or "[" in line:
                continue
            memory.seek(begin)
            found = memory.read(end - begin).find(b"\xeb\xfe")
            if found >= 0:
                return begin + found
    raise AssertionError("no jmp to itself in the code")


def spin(extension, name):
    """Makes one thread loop forever, as a bug would."""
    assert platform.machine() == "x86_64", "registers are known for x86-64 only"
    thread = thread_of(extension, name)
    ptrace(PTRACE_SEIZE, thread)
    ptrace(PTRACE_INTERRUPT, thread)
    os.waitpid(thread, WALL)
    registers = Registers()
    ptrace(PTRACE_GETREGS, thread, None, ctypes.addressof(registers))
    registers.rip = find_endless_loop(extension)
    # No system call may be restarted there.
    registers.orig_rax = 2**64 - 1
    ptrace(PTRACE_SETREGS, thread, None, ctypes.addressof(registers))
    ptrace(PTRACE_DETACH, thread)


@contextlib.contextmanager
def control_group(name=None):
    """A new, empty group of the unified hierarchy; with a name, in that of this process."""
    (root, *_) = [
        line.split()[1]
        for line in pathlib.Path("/proc/self/mounts").read_text().splitlines()
        if line.split()[2] == "cgroup2"
    ] or [None]
    assert root, "the unified control groups (cgroup2) are not mounted"
    group = pathlib.Path(root, f"ostravel-test-{os.getpid()}-{time.monotonic_ns()}")
    if name:
        (own,) = re.findall(r"^0::/(.*)$", pathlib.Path("/proc/self/cgroup").read_text(), re.MULTILINE)
        group = pathlib.Path(root, own, name)
    group.mkdir()
    try:
        yield group
    finally:
        (group / "cgroup.kill").write_text("1")
        eventually(lambda: not (group / "cgroup.procs").read_text(), "the group is empty")
        group.rmdir()


def start_in(group):
    """A prefix that runs a program in the group."""
    return ("sh", "-c", 'echo $$ > "$0/cgroup.procs" && exec "$@"', str(group))
