"""Rules of other programs may prevent proxying, but never break a connection."""

import socket

import pytest

from Laboratory.network import THERE4, THERE6
from laboratory import Fetched, eventually, log_lines, receive_all
from origins import tell_peer

SO_MARK = 36  # asm-generic/socket.h
# The default bits of ours, and the value that refuses.
MARK_UNIT = 1 << 25
REFUSED = 2 * MARK_UNIT

# A firewall that accepts only loopback addresses on loopback.
DROPPING = """
table inet firewall {
  chain input {
    type filter hook input priority filter;
    iifname lo ip saddr != 127.0.0.0/8 drop
    iifname lo ip6 saddr != ::1 drop
  }
}
"""
REJECTING = DROPPING.replace("drop", "reject with tcp reset").replace("iifname", "meta l4proto tcp iifname")
UNTRACKING = """
table inet firewall {
  chain output {
    type filter hook output priority raw;
    oifname lo notrack
  }
  chain prerouting {
    type filter hook prerouting priority raw;
    iifname lo notrack
  }
}
"""


def add_rules(laboratory, rules):
    laboratory.here.run("nft", "-f", "-", given=rules)


def complaints(extension, text="do not arrive"):
    return [line for level, line in log_lines(extension) if text in line]


@pytest.mark.parametrize("rules", [DROPPING, REJECTING, UNTRACKING])
def test_rules_that_stop_redirection_are_found_at_start(laboratory, rules):
    laboratory.start_monitor()
    laboratory.start_sidecar()
    add_rules(laboratory, rules)
    extension = laboratory.start_extension()
    for name in ("IPv4", "IPv6"):
        extension.expect(extension.errors, f"do not arrive over {name}")
    for host in (THERE4, THERE6):
        for _ in range(3):
            assert laboratory.fetch(host, 7860).way == "direct"
    assert len(complaints(extension)) == 2


@pytest.mark.parametrize("host", [THERE4, THERE6])
@pytest.mark.parametrize("rules", [DROPPING, UNTRACKING])
def test_lost_redirected_connections_go_direct(laboratory, rules, host):
    _, extension = laboratory.start_system()
    eventually(lambda: laboratory.fetch(host, 7860).way == "proxied", "flows are proxied")
    add_rules(laboratory, rules)
    fetched = laboratory.fetch(host, 7860)
    # It is noticed within a second, but a busy machine takes longer.
    assert (fetched.way, fetched.repetitions <= 3) == ("direct", True), fetched
    extension.expect(extension.errors, "do not arrive")
    # From now on nothing is offered.
    for _ in range(5):
        fetched = laboratory.fetch(host, 7860)
        assert (fetched.way, fetched.repetitions) == ("direct", 0)
    assert len(complaints(extension)) == 1


def fetch_marked(laboratory, port, mark):
    with laboratory.socket(THERE4) as application:
        application.setsockopt(socket.SOL_SOCKET, SO_MARK, mark)
        application.settimeout(20)
        application.connect((THERE4, port))
        own_port = application.getsockname()[1]
        application.sendall(b"GET / HTTP/1.0\r\n\r\n")
        return Fetched(0, receive_all(application).partition(b"\r\n\r\n")[2].decode(), own_port, "")


def test_a_foreign_mark_on_another_port_has_no_effect(laboratory):
    laboratory.serve(81, tell_peer)
    laboratory.start_system()
    for value in range(1, 32):
        assert fetch_marked(laboratory, 81, value * MARK_UNIT).way == "direct"


def test_other_bits_can_be_chosen(laboratory):
    laboratory.start_monitor()
    laboratory.start_sidecar()
    laboratory.start_extension("--mark-mask", "0x700")
    laboratory.wait_until_proxied()
    assert fetch_marked(laboratory, 7860, REFUSED).way == "proxied"


@pytest.mark.parametrize("mask", ["0", "0x3", "0x3e000001", "3e000000", "0x1ffffffff", "many", ""])
def test_an_unusable_mask_is_reported(laboratory, mask):
    extension = laboratory.run_extension("--mark-mask", mask)
    assert extension.wait() == 2
    extension.expect(extension.errors, f'"{mask}" is not a mask of at least three adjacent bits')


def test_a_clash_with_routing_rules_is_reported(laboratory):
    for arguments in (
        ["-4", "rule", "add", "priority", "1234", "fwmark", "0x2000000/0xff000000", "table", "main"],
        ["-6", "rule", "add", "priority", "1235", "fwmark", "0x4000000/0x4000000", "table", "main"],
        # None of ours.
        ["-4", "rule", "add", "priority", "1236", "fwmark", "0xca6c", "table", "main"],
    ):
        laboratory.here.run("ip", *arguments)
    _, extension = laboratory.start_system()
    clashes = complaints(extension, "Packet marks clash")
    assert len(clashes) == 2
    assert "priority 1234 (ip rule) for the mark 0x2000000/0xff000000" in clashes[0]
    assert "priority 1235 (ip -6 rule) for the mark 0x4000000/0x4000000" in clashes[1]
    assert "--mark-mask 0x" in clashes[0]
