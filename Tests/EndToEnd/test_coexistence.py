"""Other networking of the machine works beside the system, and flows are proxied nevertheless."""

import errno
import socket

import pytest

from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.network import HERE4, HERE6, THERE4, THERE6
from laboratory import PEER_PORT, Fetched, receive_all
from origins import tell_peer

# linux/in.h, asm-generic/socket.h, linux/tcp.h
IPPROTO_MPTCP = 262
SO_MARK = 36
TCP_FASTOPEN_CONNECT = 30

REQUEST = b"GET / HTTP/1.0\r\n\r\n"


def ask(application, address=None):
    """This process as an application: what it has seen of one request.

    Without an address the socket is connected.
    """
    with application:
        application.settimeout(GENEROUS_SECONDS)
        if address is not None:
            application.connect(address)
        # With TCP Fast Open this is what sends the first packet.
        application.sendall(REQUEST)
        own_port = application.getsockname()[1]
        return Fetched(0, receive_all(application).partition(b"\r\n\r\n")[2].decode(), own_port, "")


# Logged when the extension has noticed such rules of other programs.
RULES_FOR_OUTPUT_LINE = "flows are now offered after them"

# Firewalls of iptables-legacy(8)

LEGACY_RULES = """
*filter
:INPUT DROP
:FORWARD DROP
:OUTPUT ACCEPT
-A INPUT -i lo -j ACCEPT
-A INPUT -m conntrack --ctstate ESTABLISHED,RELATED -j ACCEPT
-A OUTPUT -p tcp --dport 81 -j REJECT
COMMIT
*nat
:DOCKED -
-A PREROUTING -m addrtype --dst-type LOCAL -j DOCKED
-A OUTPUT ! -d 127.0.0.0/8 -m addrtype --dst-type LOCAL -j DOCKED
-A POSTROUTING -s 172.17.0.0/16 ! -o docked -j MASQUERADE
-A DOCKED -p tcp --dport 5000 -j DNAT --to-destination 172.17.0.2:5000
COMMIT
*mangle
-A OUTPUT -p tcp -j MARK --set-xmark 0x10/0xff
-A OUTPUT -j CONNMARK --save-mark
COMMIT
"""

# Nor does it let out anything unknown, such as connections to our listeners.
LEGACY_RULES_FOR_OUTPUT = LEGACY_RULES.replace(
    ":OUTPUT ACCEPT",
    ":OUTPUT DROP\n"
    "-A OUTPUT -m conntrack --ctstate ESTABLISHED,RELATED -j ACCEPT\n"
    "-A OUTPUT -o lo -j ACCEPT\n"
    "-A OUTPUT -p tcp --dport 7860 -j ACCEPT",
    1,
)


@pytest.mark.parametrize(
    "rules, way",
    [(LEGACY_RULES, "proxied"), (LEGACY_RULES_FOR_OUTPUT, "direct")],
    ids=["input", "input and output"],
)
def test_legacy_rules_keep_their_effect(laboratory, rules, way):
    """A firewall that drops unknown packets, with the translations of a container engine."""
    laboratory.serve(81, tell_peer)
    _, extension = laboratory.start_system()
    laboratory.here.run("iptables-legacy-restore", given=rules)
    extension.expect(extension.errors, RULES_FOR_OUTPUT_LINE)
    for _ in range(3):
        assert laboratory.fetch(THERE4, PEER_PORT).way == way
    assert laboratory.fetch(THERE4, 81).status == errno.ECONNREFUSED


# A WireGuard tunnel as wg-quick(8) sets it up

TUNNEL_MARK = "0xca6c"
TUNNEL_HERE4, TUNNEL_THERE4 = "10.66.0.2", "10.66.0.1"
BEYOND4 = "203.0.113.7"

TUNNEL_HERE6, TUNNEL_THERE6 = "fd66::2", "fd66::1"
BEYOND6 = "2001:db8:7::7"

TUNNEL_RULES = "".join(
    f"""
table {family} wg-quick-tunnel {{
  chain preraw {{
    type filter hook prerouting priority raw; policy accept;
    iifname != "tunnel" {family} daddr {address} fib saddr type != local drop
  }}
  chain premangle {{
    type filter hook prerouting priority mangle; policy accept;
    meta l4proto udp meta mark set ct mark
  }}
  chain postmangle {{
    type filter hook postrouting priority mangle; policy accept;
    meta l4proto udp meta mark {TUNNEL_MARK} ct mark set meta mark
  }}
}}
"""
    for family, address in (("ip", TUNNEL_HERE4), ("ip6", TUNNEL_HERE6))
)


def set_up_tunnel(laboratory):
    """Everything goes into the tunnel, except what carries the mark or has a route of its own.

    A virtual cable stands in for the encryption.
    """
    laboratory.here.run(
        "ip", "link", "add", "tunnel", "type", "veth", "peer", "name", "tunnel",
        "netns", laboratory.there.path,
    )  # fmt: skip
    for namespace, address4, address6 in (
        (laboratory.here, TUNNEL_HERE4, TUNNEL_HERE6),
        (laboratory.there, TUNNEL_THERE4, TUNNEL_THERE6),
    ):
        namespace.run("ip", "address", "add", f"{address4}/24", "dev", "tunnel")
        namespace.run("ip", "address", "add", f"{address6}/64", "dev", "tunnel", "nodad")
        namespace.run("ip", "link", "set", "tunnel", "up")
    laboratory.there.run("ip", "address", "add", f"{BEYOND4}/32", "dev", "lo")
    laboratory.there.run("ip", "address", "add", f"{BEYOND6}/128", "dev", "lo")
    for version, cable, gateway in (
        ("-4", THERE4, TUNNEL_THERE4),
        ("-6", THERE6, TUNNEL_THERE6),
    ):
        for arguments in (
            # Without the tunnel, everything goes to the other end of the cable.
            ["route", "add", "default", "via", cable],
            ["route", "add", "default", "via", gateway, "dev", "tunnel", "table", "51820"],
            ["rule", "add", "not", "fwmark", TUNNEL_MARK, "table", "51820"],
            ["rule", "add", "table", "main", "suppress_prefixlength", "0"],
        ):
            laboratory.here.run("ip", version, *arguments)
    with laboratory.here, open("/proc/sys/net/ipv4/conf/all/src_valid_mark", "w") as setting:
        setting.write("1")
    laboratory.here.run("nft", "-f", "-", given=TUNNEL_RULES)


def seen_address(fetched):
    return fetched.body.split()[0]


def test_a_tunnel_with_policy_routing_keeps_working(laboratory):
    """Even with its rules, which drop packets that only seem to come through the tunnel."""
    set_up_tunnel(laboratory)
    laboratory.serve(81, tell_peer)
    laboratory.start_system()
    for host, own_address in (
        (BEYOND4, TUNNEL_HERE4),
        (BEYOND6, TUNNEL_HERE6),
        (THERE4, HERE4),
        (THERE6, HERE6),
    ):
        for port, way in ((81, "direct"), (PEER_PORT, "proxied")):
            fetched = laboratory.fetch(host, port)
            assert fetched.way == way
            # The local proxy takes the route that the application would have taken.
            assert seen_address(fetched) == own_address
            # The first packet to a host, which goes direct, may wait for its neighbour's address.
            assert way == "direct" or fetched.repetitions == 0


def test_a_tunnel_that_is_brought_up_later_is_used(laboratory):
    laboratory.serve(81, tell_peer)
    _, extension = laboratory.start_system()
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    set_up_tunnel(laboratory)
    extension.expect(extension.errors, "Answers are now hidden from other programs' rules")
    for host, own_address in ((BEYOND4, TUNNEL_HERE4), (BEYOND6, TUNNEL_HERE6)):
        fetched = laboratory.fetch(host, PEER_PORT)
        assert fetched.way == "proxied"
        assert seen_address(fetched) == own_address


@pytest.mark.parametrize("host", [BEYOND4, BEYOND6])
def test_resets_pass_the_rules_of_a_tunnel(laboratory, host):
    """Of a refused connection, and of a tunnel when the extension is killed."""
    set_up_tunnel(laboratory)
    laboratory.serve(80, None)
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    extension = laboratory.start_extension()
    laboratory.wait_until_proxied()
    mark = proxy.mark()
    with laboratory.connect(host, 80) as application:
        proxy.wait("asked", mark)
        extension.kill()
        with pytest.raises(ConnectionResetError):
            application.recv(1)
    laboratory.forget(extension)
    extension = laboratory.start_extension()
    laboratory.wait_until_proxied()
    proxy.behave(answer="HTTP/1.1 403 Forbidden\r\n\r\n", then="end")
    assert laboratory.fetch(host, PEER_PORT).status == errno.ECONNREFUSED


def test_a_tunnels_own_packets_avoid_it(laboratory):
    """Packets with the tunnel's mark do not enter it, on ports that are offered and on others."""
    set_up_tunnel(laboratory)
    laboratory.serve(81, tell_peer)
    laboratory.start_system()
    for port, way in ((81, "direct"), (PEER_PORT, "proxied")):
        application = laboratory.socket(BEYOND4)
        application.setsockopt(socket.SOL_SOCKET, SO_MARK, int(TUNNEL_MARK, 16))
        application.connect((BEYOND4, port))
        assert application.getsockname()[0] == HERE4
        fetched = ask(application)
        assert fetched.way == way


# Kinds of sockets


def test_a_multipath_connection_is_proxied(laboratory):
    laboratory.start_system()
    with laboratory.here:
        application = socket.socket(socket.AF_INET, socket.SOCK_STREAM, IPPROTO_MPTCP)
    assert ask(application, (THERE4, PEER_PORT)).way == "proxied"


def test_a_multipath_connection_that_is_left_alone_stays_one(laboratory):
    with laboratory.there:
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM, IPPROTO_MPTCP)
        listener.bind((THERE4, 81))
        listener.listen()
    with listener:
        laboratory.start_system()
        with laboratory.here:
            application = socket.socket(socket.AF_INET, socket.SOCK_STREAM, IPPROTO_MPTCP)
        with application:
            application.connect((THERE4, 81))
            with listener.accept()[0]:
                assert "tcp-ulp-mptcp" in laboratory.here.run("ss", "-Htni", "dport = :81")


def allow_fast_open(laboratory):
    for namespace in (laboratory.here, laboratory.there):
        with namespace, open("/proc/sys/net/ipv4/tcp_fastopen", "w") as setting:
            # Client, server, and every listener.
            setting.write("1027")


def open_fast(laboratory, address):
    application = laboratory.socket(THERE4)
    application.setsockopt(socket.IPPROTO_TCP, TCP_FASTOPEN_CONNECT, 1)
    return ask(application, address)


def syns_with_data(laboratory):
    """What this machine has sent and the other end has accepted (TCPFastOpenActive)."""
    with laboratory.here, open("/proc/net/netstat") as file:
        names, values = [line.split()[1:] for line in file if line.startswith("TcpExt:")]
    return int(dict(zip(names, values))["TCPFastOpenActive"])


def test_tcp_fast_open_works(laboratory):
    allow_fast_open(laboratory)
    # The port's listener is one of this test, because those before had no fast open.
    laboratory.serve(80, tell_peer)
    laboratory.serve(81, tell_peer)
    # Learns the cookie, and then uses it.
    for _ in range(2):
        assert open_fast(laboratory, (THERE4, 80)).way == "direct"
    assert syns_with_data(laboratory) == 1
    laboratory.start_system()
    # Data in the first packet of a proxied connection is sent once more.
    for _ in range(3):
        assert open_fast(laboratory, (THERE4, 80)).way == "proxied"
    before = syns_with_data(laboratory)
    assert open_fast(laboratory, (THERE4, 81)).way == "direct"
    assert syns_with_data(laboratory) >= before


def test_a_mapped_address_is_that_of_ipv4(laboratory):
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    laboratory.start_extension()
    laboratory.wait_until_proxied()
    mark = proxy.mark()
    with laboratory.here:
        application = socket.socket(socket.AF_INET6, socket.SOCK_STREAM)
    application.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
    assert ask(application, (f"::ffff:{THERE4}", PEER_PORT)).way == "proxied"
    (request,) = proxy.requests(mark)
    assert request.startswith(f"CONNECT {THERE4}:{PEER_PORT} HTTP/1.1\r\n")


def test_a_socket_for_ipv6_only_is_proxied(laboratory):
    laboratory.start_system()
    with laboratory.here:
        application = socket.socket(socket.AF_INET6, socket.SOCK_STREAM)
    application.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
    assert ask(application, (THERE6, PEER_PORT)).way == "proxied"


# Rules by user

BY_USER = """
table inet firewall {
  chain output {
    type filter hook output priority filter + 10; policy accept;
    meta skuid 4002 tcp dport 7860 reject with tcp reset
    meta skuid 4002 udp dport 443 reject
  }
}
"""


@pytest.mark.parametrize("beginning", ["before the start", "after the start"])
def test_rules_by_user_apply_to_proxied_connections(laboratory, beginning):
    url = f"http://{THERE4}:{PEER_PORT}/"
    if beginning == "before the start":
        laboratory.here.run("nft", "-f", "-", given=BY_USER)
        laboratory.start_system()
    else:
        _, extension = laboratory.start_system()
        assert laboratory.curl(url, user=4002).way == "proxied"
        laboratory.here.run("nft", "-f", "-", given=BY_USER)
        extension.expect(extension.errors, RULES_FOR_OUTPUT_LINE)
    assert laboratory.curl(url, user=4001).way == "proxied"
    refused = laboratory.curl(url, user=4002)
    # That it was refused (curl(1)).
    assert refused.status == 7, str(refused)
