"""Flows that a relay could not carry are left to the system, and work as without us."""

import socket

import pytest

from Laboratory.network import HERE4, THERE4, THERE6
from laboratory import PEER_PORT, eventually
from origins import DatagramEcho, tell_peer

INNER_HERE, INNER_THERE = "203.0.113.1", "203.0.113.2"
LINK_LOCAL4 = "169.254.7.7"


@pytest.fixture
def system(laboratory):
    """The extension as it proxies everything that it can."""
    laboratory.start_system()
    yield
    # It still does.
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"


def way_of(laboratory, application, address):
    """The path that a request of this socket takes."""
    with application:
        application.settimeout(20)
        application.connect(address)
        own_port = application.getsockname()[1]
        application.sendall(b"GET / HTTP/1.0\r\n\r\n")
        answer = b""
        while received := application.recv(4096):
            answer += received
    seen_port = int(answer.partition(b"\r\n\r\n")[2].split()[1])
    return "direct" if seen_port == own_port else "proxied"


@pytest.mark.parametrize("host", [THERE4, THERE6])
def test_a_bound_socket_keeps_its_interface(laboratory, system, host):
    application = laboratory.socket(host)
    application.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"here")
    assert way_of(laboratory, application, (host, PEER_PORT)) == "direct"


def test_a_datagram_of_a_bound_socket_is_not_refused(laboratory, system):
    echo = DatagramEcho(laboratory.there, 443)
    try:
        with laboratory.socket(THERE4, socket.SOCK_DGRAM) as application:
            application.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"here")
            application.settimeout(20)
            application.connect((THERE4, 443))
            application.send(b"hello")
            assert application.recv(100) == b"hello"
    finally:
        echo.close()


def link_local6(namespace, interface):
    line = namespace.run("ip", "-o", "-6", "addr", "show", "dev", interface, "scope", "link")
    return line.split()[3].partition("/")[0]


def test_a_link_local_destination_with_a_zone_is_reached(laboratory, system):
    address = eventually(lambda: link_local6(laboratory.there, "there"), "a link-local address")
    with laboratory.here:
        index = socket.if_nametoindex("here")
    application = laboratory.socket(THERE6)
    assert way_of(laboratory, application, (address, PEER_PORT, 0, index)) == "direct"


def test_a_link_local_destination_without_a_zone_is_reached(laboratory, system):
    laboratory.there.run("ip", "addr", "add", f"{LINK_LOCAL4}/16", "dev", "there")
    laboratory.here.run("ip", "addr", "add", "169.254.7.1/16", "dev", "here")
    application = laboratory.socket(THERE4)
    assert way_of(laboratory, application, (LINK_LOCAL4, PEER_PORT)) == "direct"


def test_a_kernel_tunnel_on_a_selected_port_keeps_working(laboratory, system):
    """A packet without a program's socket: vxlan, like WireGuard on port 443."""
    for namespace, device, own, other, inner in (
        (laboratory.here, "here", HERE4, THERE4, INNER_HERE),
        (laboratory.there, "there", THERE4, HERE4, INNER_THERE),
    ):
        namespace.run(
            "ip", "link", "add", "tunnel", "type", "vxlan", "id", "7", "dev", device,
            "local", own, "remote", other, "dstport", "443",
        )  # fmt: skip
        namespace.run("ip", "addr", "add", f"{inner}/24", "dev", "tunnel")
        namespace.run("ip", "link", "set", "tunnel", "up")
    # A port that is not selected, so that only the tunnel's own packets are examined.
    laboratory.serve(4444, tell_peer)
    assert laboratory.fetch(INNER_THERE, 4444).way == "direct"


def test_a_family_without_a_listener_is_direct(laboratory):
    laboratory.here.run("ip", "addr", "del", "::1/128", "dev", "lo")
    laboratory.start_system()
    for _ in range(3):
        assert laboratory.fetch(THERE6, PEER_PORT).way == "direct"
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
