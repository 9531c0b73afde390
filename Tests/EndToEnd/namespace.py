"""Unnamed network namespaces: the kernel removes them when nobody uses them any more."""

import ctypes
import os
import subprocess
import threading

CLONE_NEWNET = 0x40000000  # linux/sched.h

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, action):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{action}: {os.strerror(number)}")


def _open_current():
    return os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)


class Namespace:
    """A new network namespace with a loopback interface.

    A thread is inside for the length of a with statement. The sockets that it makes there and the
    processes that it starts there stay inside, even after the thread leaves. Other threads are
    not concerned.
    """

    def __init__(self):
        self._outside = threading.local()
        outside = _open_current()
        try:
            _check(_libc.unshare(CLONE_NEWNET), "a network namespace cannot be made")
            try:
                self._descriptor = _open_current()
            finally:
                _check(_libc.setns(outside, CLONE_NEWNET), "setns")
            assert os.fstat(outside).st_ino != os.fstat(self._descriptor).st_ino
        finally:
            os.close(outside)
        with self:
            for part in ("all", "default"):
                with open(f"/proc/sys/net/ipv6/conf/{part}/disable_ipv6", "r+") as setting:
                    if setting.read().strip() != "0":
                        setting.write("0\n")
        self.run("ip", "link", "set", "lo", "up")

    @property
    def path(self):
        """A path of the namespace for other programs, valid while this process has it open."""
        return f"/proc/{os.getpid()}/fd/{self._descriptor}"

    def __enter__(self):
        stack = self._outside.__dict__.setdefault("stack", [])
        stack.append(_open_current())
        _check(_libc.setns(self._descriptor, CLONE_NEWNET), "setns")
        return self

    def __exit__(self, *_):
        outside = self._outside.stack.pop()
        _check(_libc.setns(outside, CLONE_NEWNET), "setns")
        os.close(outside)

    def run(self, *arguments, given=None):
        """Runs a system program to its end; returns its output."""
        with self:
            done = subprocess.run(
                arguments, input=given, capture_output=True, text=True, timeout=30, check=False
            )
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(arguments)}: {done.stderr.strip()}")
        return done.stdout

    def close(self):
        os.close(self._descriptor)
