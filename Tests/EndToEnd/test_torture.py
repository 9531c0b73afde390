"""Applications connect while the system is killed and other programs' rules come and go."""

import pathlib
import signal
import socket

import pytest

from Laboratory.namespace import Namespace
from Laboratory.network import HERE4, THERE4
import call_faults
import neighbours
import torture
from laboratory import PEER_PORT, eventually, reset
from origins import tell_peer

# TCP retransmits a first packet after 1 s, perhaps after 2 s, and after 3 s; then not before 4 s. The
# rest is for a busy machine.
RETRANSMITTED_SECONDS = 3.9
DEADLINE_SECONDS = 5


@pytest.fixture
def neighbourhood(laboratory):
    neighbours.prepare(laboratory)
    return laboratory


def check_none_failed(connections):
    assert connections.count > 0
    assert connections.failed == 0, str(connections)


def check_kills_were_bearable(connections):
    check_none_failed(connections)
    assert connections.slowest < RETRANSMITTED_SECONDS, str(connections)
    assert connections.proxied > 0 and connections.direct > 0, str(connections)


def test_no_connection_fails_while_the_extension_is_killed(neighbourhood):
    _, extension = neighbours.start_quiet_system(neighbourhood)
    connections = torture.kill_extension(neighbourhood, extension, 20)
    check_kills_were_bearable(connections)


def is_stopped(program):
    """True if none of its threads reads any more; a signal takes a moment to reach them all."""
    threads = pathlib.Path(f"/proc/{program.pid}/task").iterdir()
    states = [(thread / "stat").read_text().rpartition(") ")[2][0] for thread in threads]
    return set(states) == {"T"}


@pytest.mark.parametrize("is_idle", [True, False], ids=["idle", "with unread bytes"])
def test_a_source_port_is_reusable_after_a_kill(neighbourhood, is_idle):
    """The kernel remembers the redirection of the connection, perhaps for days."""
    _, extension = neighbours.start_quiet_system(neighbourhood)

    def connect():
        application = neighbourhood.socket(THERE4)
        application.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        application.settimeout(DEADLINE_SECONDS)
        application.bind((HERE4, 23456))
        application.connect((THERE4, neighbours.STREAM_PORT))
        return application

    neighbours.start_origin(neighbourhood, "hold", neighbours.STREAM_PORT)
    with connect() as application:
        extension.send_signal(signal.SIGSTOP)
        eventually(lambda: is_stopped(extension), "every thread has stopped")
        if not is_idle:
            # Unread data makes its end a reset.
            application.sendall(b"-")
        extension.kill()
        # Not an orderly end, which would make truncated data look complete.
        with pytest.raises(ConnectionResetError):
            application.recv(1)
    neighbours.start_quiet_extension(neighbourhood)
    connect().close()


def test_every_tunnel_of_a_killed_extension_is_reset(neighbourhood):
    """Nobody else tracks connections here, so nobody else translates the resets."""
    _, extension = neighbours.start_quiet_system(neighbourhood)
    neighbours.start_origin(neighbourhood, "hold", neighbours.STREAM_PORT)
    applications = [
        neighbourhood.connect(THERE4, neighbours.STREAM_PORT, DEADLINE_SECONDS) for _ in range(40)
    ]
    extension.kill()
    for application in applications:
        with application, pytest.raises(ConnectionResetError):
            application.recv(1)


def test_no_connection_fails_while_the_proxy_is_killed(neighbourhood):
    proxy, _ = neighbours.start_quiet_system(neighbourhood)
    connections = torture.kill_proxy(neighbourhood, proxy, 8)
    check_kills_were_bearable(connections)


def test_a_connection_goes_direct_if_its_proxy_dies_unanswered(neighbourhood):
    proxy, _ = neighbours.start_quiet_system(neighbourhood, neighbourhood.start_local_proxy)
    proxy.behave(answer="", then="hold")
    mark = proxy.mark()
    with torture.application(neighbourhood, 1, "--count", 1) as application:
        proxy.wait("asked", mark)
        # To the extension this looks like a proxy that refuses.
        proxy.program.kill()
        connections = application.end()
    check_none_failed(connections)
    assert connections.direct == 1, str(connections)
    assert connections.slowest < DEADLINE_SECONDS, str(connections)


@pytest.mark.xdist_group("processors")
@pytest.mark.parametrize("name", torture.FOREIGN_RULES)
def test_no_connection_fails_while_other_rules_come_and_go(neighbourhood, name):
    foreign = torture.FOREIGN_RULES[name]
    neighbours.start_quiet_system(neighbourhood)
    ruled = torture.rule(neighbourhood, foreign, seconds=2)
    for connections in ruled:
        check_none_failed(connections)
        assert connections.slowest < RETRANSMITTED_SECONDS, str(ruled)
    assert ruled.before.proxied_share > 0.9, str(ruled)
    if foreign.is_proxied:
        assert ruled.during.proxied_share > 0.9, str(ruled)


def test_containers_are_reached_and_reach_others_as_before(laboratory):
    container = Namespace()
    try:
        laboratory.here.run("ip", "link", "add", "docked", "type", "bridge")
        laboratory.here.run(
            "ip", "link", "add", "cable", "type", "veth", "peer", "name", "eth0",
            "netns", container.path,
        )  # fmt: skip
        laboratory.here.run("ip", "link", "set", "cable", "master", "docked", "up")
        for namespace, name, address in (
            (laboratory.here, "docked", "172.17.0.1"),
            (container, "eth0", torture.CONTAINER4),
        ):
            namespace.run("ip", "address", "add", f"{address}/16", "dev", name)
            namespace.run("ip", "link", "set", name, "up")
        container.run("ip", "route", "add", "default", "via", "172.17.0.1")
        with laboratory.here, open("/proc/sys/net/ipv4/ip_forward", "w") as setting:
            setting.write("1")
        laboratory.here.run("nft", "-f", "-", given=torture.CONTAINER_RULES)
        laboratory.serve(5000, tell_peer, namespace=container)
        laboratory.serve(80, tell_peer)
        laboratory.start_system()
        # From this machine, from another one, and out of the container.
        published = laboratory.fetch(HERE4, 5000)
        assert published.status == 0, str(published)
        with laboratory.there:
            asked = neighbours.ask_peer(HERE4, 5000)
        assert asked == THERE4
        with container:
            asked = neighbours.ask_peer(THERE4, 80)
        assert asked == HERE4
        assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    finally:
        container.close()


def test_tunnels_stay_while_others_come_and_go(neighbourhood):
    held = torture.hold_tunnels(neighbourhood, 300, seconds=3, churn=3000)
    assert held.held == 300 and not held.failed, held
    # Those that were opened first, and a good part of those replaced since.
    assert held.exchanged > 350, held


def test_no_connection_fails_while_everything_is_disturbed(neighbourhood):
    connections, done, tables = torture.disturb(neighbourhood, 8)
    check_none_failed(connections)
    assert done and connections.proxied > 0
    assert "table inet ostravel" not in tables


@pytest.mark.parametrize(
    "fault",
    [
        call_faults.Fault("connect", "EADDRNOTAVAIL", "10+"),
        # The queue cannot be read, once and from then on.
        call_faults.Fault("recvmmsg", "ENOMEM", "4"),
        call_faults.Fault("recvmmsg", "ENOMEM", "10+"),
        # Verdicts cannot be given.
        call_faults.Fault("sendto", "ENOBUFS", "40+"),
        call_faults.Fault("accept4", "ENFILE", "10+"),
        call_faults.Fault("socket", "EMFILE", "40+"),
        # Where accepted connections lead is unknown.
        call_faults.Fault("getsockopt", "ENOBUFS", "40+"),
    ],
    ids=str,
)
def test_no_connection_fails_when_a_system_call_fails(neighbourhood, fault):
    suffered = call_faults.suffer(neighbourhood, fault)
    broken = [text for text, is_kept in suffered.promises() if not is_kept]
    assert not broken, suffered


def test_transfers_are_exact(laboratory):
    transferred = torture.transfer(laboratory, laboratory.start_sidecar, 0.2)
    assert (transferred.wrong, transferred.exact_bytes) == ([], 200_000_000)
    assert transferred.connections == 4
