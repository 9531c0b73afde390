"""Unnamed network namespaces: the kernel removes them when nobody uses them any more."""

import concurrent.futures
import ctypes
import os
import pathlib
import signal
import threading

from .problem import Problem
from .program import run

# linux/sched.h
CLONE_NEWNS = 0x00020000
CLONE_NEWNET = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, what):
    if result != 0:
        raise Problem(f"{what}: {os.strerror(ctypes.get_errno())}", 2)


def _open_current():
    return os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)


def make_mounts_private():
    """Gives the calling thread private mounts, inherited by all that it starts from now on."""
    _check(_libc.unshare(CLONE_NEWNS), "no mount namespace can be made")
    run("mount", "--make-rprivate", "/")


def processes_in(name):
    """The processes in a network namespace that is named as in Namespace.name.

    Only for one that still exists: the kernel soon gives the number of a removed one to another.
    """
    found = []
    for process in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{process}/ns/net") == name:
                found.append(int(process))
        except OSError:
            # It has ended.
            pass
    return found


def _in_a_thread(function):
    """What a new thread returns, which may stay in another namespace when it ends.

    Going back takes permissions in the namespace outside, which a user namespace does not have.
    """
    with concurrent.futures.ThreadPoolExecutor(1) as thread:
        return thread.submit(function).result()


def _make():
    """Moves the calling thread into a new network namespace and returns a descriptor of that."""
    outside = os.stat("/proc/thread-self/ns/net").st_ino
    _check(_libc.unshare(CLONE_NEWNET), "no network namespace can be made")
    descriptor = _open_current()
    # Later steps, above all ending processes, must only affect a new one.
    if os.fstat(descriptor).st_ino == outside:
        raise Problem("the network namespace is not a new one")
    for part in ("all", "default"):
        _set_ipv6(part, "disable_ipv6", "0")
    # Nobody else can have the address of an interface's link. While the kernel looks for somebody,
    # that address changes a second or two later, and a browser ends what it is loading then.
    _set_ipv6("default", "accept_dad", "0")
    run("ip", "link", "set", "lo", "up")
    return descriptor


def _set_ipv6(part, name, value):
    setting = pathlib.Path(f"/proc/sys/net/ipv6/conf/{part}/{name}")
    try:
        if setting.read_text().strip() != value:
            setting.write_text(value + "\n")
    except OSError:
        # Read-only in some containers, which then keep their IPv6 settings.
        pass


class Namespace:
    """A new network namespace with a loopback interface.

    A thread is inside for the length of a with statement. The sockets that it makes there and the
    processes that it starts there stay inside, even after the thread leaves. Other threads are not
    affected.
    """

    def __init__(self):
        self._outside = threading.local()
        self._descriptor = _in_a_thread(_make)

    @property
    def path(self):
        """A path of the namespace for other programs, valid while this process has it open."""
        return f"/proc/{os.getpid()}/fd/{self._descriptor}"

    @property
    def name(self):
        """As in the links of /proc (namespaces(7))."""
        return os.readlink(self.path)

    def __enter__(self):
        stack = self._outside.__dict__.setdefault("stack", [])
        stack.append(_open_current())
        self.enter()
        return self

    def __exit__(self, *_):
        outside = self._outside.stack.pop()
        _check(_libc.setns(outside, CLONE_NEWNET), "setns")
        os.close(outside)

    def enter(self):
        """Moves the calling thread inside permanently, with all that it starts from now on."""
        _check(_libc.setns(self._descriptor, CLONE_NEWNET), "setns")

    def run(self, *arguments, given=None):
        """Runs a system program to its end and returns its output; it is a Problem if it fails."""

        def inside():
            self.enter()
            return run(*arguments, given=given)

        return _in_a_thread(inside)

    def end_processes(self):
        """Kills every process inside except this one."""
        while found := [each for each in processes_in(self.name) if each != os.getpid()]:
            for process in found:
                try:
                    os.kill(process, signal.SIGKILL)
                    os.waitpid(process, 0)
                except (ProcessLookupError, ChildProcessError):
                    # Gone already, or the child of another process.
                    pass

    def close(self):
        os.close(self._descriptor)
