"""A hung extension is killed by its guardian, and no connection is lost."""

import ctypes
import errno
import os
import pathlib
import select
import signal
import socket
import stat
import struct
import sys
import time

import pytest

from Laboratory.network import THERE4, THERE6
from hangs import children_of, control_group, spin, start_in, stop
from laboratory import PEER_PORT, eventually

# From the hang, or from the beginning of a connection if that is later: a hang is noticed after a
# second, and TCP retransmits a first packet every second. The rest is for a busy machine.
ESTABLISHED_SECONDS = 2.9
# Possible delay of anything on a busy machine.
LATENESS_SECONDS = 15
KILLED = "ostravel-extension: killed: no heartbeat for 1 s: "

_libc = ctypes.CDLL(None, use_errno=True)


# Effects on applications


class Connection:
    def __init__(self, laboratory, host):
        self.socket = laboratory.socket(host)
        self.socket.setblocking(False)
        self._begin = time.monotonic()
        assert self.socket.connect_ex((host, 80)) == errno.EINPROGRESS
        self._end = None
        self.error = None

    def seconds_since(self, time_of_hang):
        """From then or from its beginning until it was established."""
        return self._end - max(self._begin, time_of_hang)

    def finish(self):
        self._end = time.monotonic()
        self.error = self.socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        self.socket.close()


class Applications:
    """Connections that begin one after the other while something happens."""

    INTERVAL = 0.05

    def __init__(self, laboratory):
        self._laboratory = laboratory
        self._poller = select.poll()
        self._pending = {}
        self.all = []

    def go_on(self, seconds):
        end = time.monotonic() + seconds
        while (now := time.monotonic()) < end:
            self._begin_one()
            self._collect(now + self.INTERVAL)

    def finish(self):
        deadline = time.monotonic() + 20
        while self._pending and time.monotonic() < deadline:
            self._collect(time.monotonic() + self.INTERVAL)
        assert not self._pending, f"{len(self._pending)} of {len(self.all)} connections still pending"

    def _begin_one(self):
        host = (THERE4, THERE6)[len(self.all) % 2]
        connection = Connection(self._laboratory, host)
        self._poller.register(connection.socket, select.POLLOUT)
        self._pending[connection.socket.fileno()] = connection
        self.all.append(connection)

    def _collect(self, until):
        while (left := until - time.monotonic()) > 0:
            for descriptor, _ in self._poller.poll(left * 1000):
                self._poller.unregister(descriptor)
                self._pending.pop(descriptor).finish()


def check_that_it_harms_nobody(laboratory, extension, hang, reason):
    """Begins connections before, while and after it hangs."""
    applications = Applications(laboratory)
    applications.go_on(1)
    # It may take a while, in which earlier connections grow older.
    hang()
    time_of_hang = time.monotonic()
    applications.go_on(3)
    assert extension.wait() == -signal.SIGKILL
    assert not laboratory.has_rules()
    applications.go_on(0.5)
    applications.finish()
    assert {connection.error for connection in applications.all} == {0}
    slowest = max(connection.seconds_since(time_of_hang) for connection in applications.all)
    print(f"{len(applications.all)} connections, the slowest after {slowest:.2f} s")
    assert slowest < ESTABLISHED_SECONDS
    assert extension.errors.since()[-1] == KILLED + reason
    assert laboratory.fetch(THERE4, PEER_PORT).way == "direct"


def start_with_a_proxy_that_holds(laboratory, **options):
    """So that flows are waiting, with their packets held by the extension."""
    laboratory.serve(80, None)
    proxy, extension = laboratory.start_system(laboratory.start_local_proxy, **options)
    proxy.behave(answer="", then="hold")
    return extension


def test_a_stopped_extension_is_killed(laboratory):
    extension = start_with_a_proxy_that_holds(laboratory)
    check_that_it_harms_nobody(
        laboratory, extension, lambda: stop(extension), "the whole process made no progress"
    )


def test_a_frozen_extension_is_killed(laboratory):
    with control_group() as group:
        extension = start_with_a_proxy_that_holds(laboratory, prefix=start_in(group))
        assert (group / "cgroup.procs").read_text().split() == [str(extension.pid)]
        check_that_it_harms_nobody(
            laboratory,
            extension,
            lambda: (group / "cgroup.freeze").write_text("1"),
            "the whole process made no progress",
        )


def test_an_extension_with_a_spinning_event_loop_is_killed(laboratory):
    extension = start_with_a_proxy_that_holds(laboratory)
    check_that_it_harms_nobody(
        laboratory, extension, lambda: spin(extension, "loop-0"), "event loop 0 made no progress"
    )


def test_it_is_killed_when_its_shutdown_hangs(laboratory):
    """Stopped during it, or just before or after."""
    _, extension = laboratory.start_system()
    extension.send_signal(signal.SIGTERM)
    laboratory.events.wait("provider_stopped")
    begin = time.monotonic()
    stop(extension)
    assert extension.wait() in (0, -signal.SIGKILL)
    assert time.monotonic() - begin < 2 + LATENESS_SECONDS
    assert not laboratory.has_rules()


# Not a hang


def check_is_in_use(laboratory, extension, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        assert laboratory.fetch(THERE4, PEER_PORT).way in ("proxied", "direct")
    assert extension.process.poll() is None
    eventually(lambda: laboratory.fetch(THERE4, PEER_PORT).way == "proxied", "it works")


def test_a_stopped_monitor_is_not_a_hang(laboratory):
    monitor = laboratory.start_monitor()
    laboratory.start_sidecar()
    extension = laboratory.start_extension()
    laboratory.wait_until_proxied()
    monitor.send_signal(signal.SIGSTOP)
    check_is_in_use(laboratory, extension, 4)


@pytest.mark.xdist_group("processors")
def test_a_busy_machine_is_not_a_hang(laboratory):
    _, extension = laboratory.start_system()
    busy = [
        laboratory.start([sys.executable, "-c", "while True: pass"])
        for _ in range(4 * os.cpu_count())
    ]
    check_is_in_use(laboratory, extension, 4)
    for program in busy:
        program.kill()


# The guardian


def is_running(process):
    try:
        return pathlib.Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except FileNotFoundError:
        return False


@pytest.mark.uninstrumented
def test_the_guardian_is_small(laboratory):
    _, extension = laboratory.start_system()
    for _ in range(20):
        assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    (guardian,) = children_of(extension)
    sizes = dict(
        line.split(":")
        for line in pathlib.Path(f"/proc/{guardian}/smaps_rollup").read_text().splitlines()[1:]
    )
    private = sum(int(sizes[name].split()[0]) for name in ("Private_Clean", "Private_Dirty"))
    print(f"{private} KiB of private memory")
    assert private < 1024
    opened = {
        name: os.readlink(f"/proc/{guardian}/fd/{name}")
        for name in os.listdir(f"/proc/{guardian}/fd")
    }
    assert opened["2"] == os.readlink(f"/proc/{extension.pid}/fd/2")
    assert opened.keys() == {"0", "2", "3", "4"}
    # To look up listeners at the end; it takes the free place of standard input.
    assert opened["0"].startswith("socket:")
    assert opened["3"] == "anon_inode:[pidfd]"
    # The one of the table that lasts until the extension has ended.
    assert opened["4"].startswith("socket:")
    assert os.listdir(f"/proc/{guardian}/task") == [str(guardian)]


def test_the_guardian_has_a_different_name(laboratory):
    """So that a signal sent to the extension by name does not reach both."""
    _, extension = laboratory.start_system()
    (guardian,) = children_of(extension)
    assert pathlib.Path(f"/proc/{guardian}/comm").read_text() == "ostravel-guard\n"
    # Without the arguments of the extension, which ps(1) and systemctl(1) would list.
    assert pathlib.Path(f"/proc/{guardian}/cmdline").read_bytes() == b"ostravel-guard\0"
    assert pathlib.Path(f"/proc/{extension.pid}/cmdline").read_bytes().split(b"\0")[0].endswith(
        b"/ostravel-extension"
    )


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_the_guardian_ends_with_the_extension(laboratory, number):
    _, extension = laboratory.start_system()
    (guardian,) = children_of(extension)
    for ignored in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        os.kill(guardian, ignored)
    assert is_running(guardian)
    extension.send_signal(number)
    # Also reads standard error to its end, which the guardian has as well.
    begin = time.monotonic()
    extension.wait()
    assert time.monotonic() - begin < LATENESS_SECONDS
    eventually(lambda: not is_running(guardian), "the guardian has ended", LATENESS_SECONDS)
    assert not any("killed" in line for line in extension.errors.since())


def test_the_loss_of_the_guardian_is_survived_and_reported(laboratory):
    _, extension = laboratory.start_system()
    os.kill(*children_of(extension), signal.SIGKILL)
    extension.expect(extension.errors, "The guardian has ended: hangs are no longer detected")
    assert children_of(extension) == []
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    assert extension.stop() == 0
    assert sum("guardian" in line for line in extension.errors.since()) == 1


def test_the_guardian_can_be_disabled_for_debugging(laboratory):
    laboratory.start_sidecar()
    extension = laboratory.start_extension("--no-guardian")
    assert children_of(extension) == []
    stop(extension)
    eventually(
        lambda: laboratory.fetch(THERE4, PEER_PORT, seconds=0.2).way == "direct", "flows pass"
    )
    end = time.monotonic() + 2
    while time.monotonic() < end:
        assert laboratory.fetch(THERE4, PEER_PORT).way == "direct"
    extension.send_signal(signal.SIGCONT)
    eventually(lambda: laboratory.fetch(THERE4, PEER_PORT).way == "proxied", "flows are proxied")


# The rules


def test_flushing_the_ruleset_does_not_disturb(laboratory):
    _, extension = laboratory.start_system()
    for _ in range(3):
        laboratory.here.run("nft", "flush", "ruleset")
        assert laboratory.has_rules()
        assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    check_is_in_use(laboratory, extension, 1.5)
    assert not any("installed again" in line for line in extension.errors.since())


NETLINK_NETFILTER = 12
NFNL_MSG_BATCH_BEGIN, NFNL_MSG_BATCH_END = 16, 17
NFNL_SUBSYS_NFTABLES = 10
NFT_MSG_DELTABLE = 2
NFTA_TABLE_NAME = 1
NFPROTO_INET = 1
NLM_F_REQUEST = 1
SYS_PIDFD_GETFD = 438


def netfilter_sockets(extension):
    """The extension's own sockets, shared with this process (pidfd_getfd(2))."""
    process = os.pidfd_open(extension.pid)
    try:
        for name in os.listdir(f"/proc/{extension.pid}/fd"):
            shared = _libc.syscall(SYS_PIDFD_GETFD, process, int(name), 0)
            if shared < 0:
                # It was open only briefly.
                assert ctypes.get_errno() == errno.EBADF, os.strerror(ctypes.get_errno())
                continue
            if not stat.S_ISSOCK(os.fstat(shared).st_mode):
                os.close(shared)
                continue
            found = socket.socket(fileno=shared)
            if found.family == socket.AF_NETLINK and found.proto == NETLINK_NETFILTER:
                yield found
            else:
                found.close()
    finally:
        os.close(process)


def delete_table(owner):
    """Through the socket that owns it: no other may."""

    def message(kind, family, resource, attributes=b""):
        payload = struct.pack("=BB", family, 0) + struct.pack(">H", resource) + attributes
        return struct.pack("=IHHII", 16 + len(payload), kind, NLM_F_REQUEST, 0, 0) + payload

    name = b"ostravel\0"
    attribute = struct.pack("=HH", 4 + len(name), NFTA_TABLE_NAME) + name.ljust(12, b"\0")
    owner.send(
        message(NFNL_MSG_BATCH_BEGIN, 0, NFNL_SUBSYS_NFTABLES)
        + message(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_DELTABLE, NFPROTO_INET, 0, attribute)
        + message(NFNL_MSG_BATCH_END, 0, NFNL_SUBSYS_NFTABLES)
    )


def test_lost_rules_are_reinstalled(laboratory):
    _, extension = laboratory.start_system()
    for owner in netfilter_sockets(extension):
        with owner:
            delete_table(owner)
    # What notices it first: the next refresh, or the check of other programs' rules, which have
    # changed as well.
    reports = ("the interception could not be kept alive: ", "the rules could not be moved: ")
    assert extension.errors.wait(lambda line: any(report in line for report in reports))
    extension.expect(extension.errors, "Rules installed again")
    eventually(lambda: laboratory.fetch(THERE4, PEER_PORT).way == "proxied", "flows are proxied")
    check_is_in_use(laboratory, extension, 1)
    assert extension.stop() == 0
    assert sum("installed again" in line for line in extension.errors.since()) == 1
