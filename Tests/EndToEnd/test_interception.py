"""Which flows are taken, and that all others are left unchanged."""

import errno
import re
import shutil
import signal
import socket
import time

import pytest

from Laboratory.network import HERE4, HERE6, THERE4, THERE6
from events import check_timed_out
from laboratory import CURL, PYTHON, eventually, host_text, receive_all, remote
from origins import DatagramEcho, tell_peer

SO_MARK = 36  # asm-generic/socket.h
LISTED_TCP_PORTS = (80, 443, 11434, 1234, 8000, 5000)
EXEMPT_IDENTIFIER = "com.mullvad.vpn"
AT_ONCE_SECONDS = 5


@pytest.mark.parametrize("host", [THERE4, THERE6])
def test_every_listed_port_is_proxied_with_its_application(laboratory, host):
    for port in LISTED_TCP_PORTS:
        laboratory.serve(port, tell_peer)
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    laboratory.start_extension()
    laboratory.wait_until_proxied()
    for port in LISTED_TCP_PORTS:
        mark = proxy.mark()
        fetched = laboratory.curl(f"http://{host_text(host)}:{port}/")
        assert fetched.way == "proxied"
        (request,) = proxy.requests(mark)
        flow_id = laboratory.events.flow_to(remote(host, port))[0]["flow_id"]
        target = remote(host, port)
        assert request == (
            f"CONNECT {target} HTTP/1.1\r\n"
            f"Host: {target}\r\n"
            f"X-Ostravel-App-Id: {CURL}\r\n"
            f"X-Ostravel-Flow-Id: {flow_id}\r\n"
            "\r\n"
        )


@pytest.mark.parametrize("host", [THERE4, THERE6])
@pytest.mark.parametrize("port", [81, 8080, 8443])
def test_other_ports_are_not_touched(laboratory, host, port):
    laboratory.serve(port, tell_peer)
    laboratory.start_system()
    mark = laboratory.events.mark()
    assert laboratory.fetch(host, port).way == "direct"
    # Followed by a proxied flow: any event would have come before its events.
    assert laboratory.fetch(host, 7860).way == "proxied"
    laboratory.events.flow_to(remote(host, 7860), mark)
    assert len(laboratory.events.since(mark)) == 3


@pytest.mark.parametrize("address, port", [("127.0.0.1", 11434), ("::1", 8000)])
def test_listed_ports_of_the_machine_itself_are_proxied(laboratory, address, port):
    laboratory.serve(port, tell_peer, namespace=laboratory.here, address=address)
    laboratory.start_system()
    assert laboratory.curl(f"http://{remote(address, port)}/").way == "proxied"
    assert laboratory.fetch(address, port).way == "proxied"


def test_the_local_proxy_itself_is_reached_directly(laboratory):
    sidecar, _ = laboratory.start_system()
    mark = laboratory.events.mark()
    fetched = laboratory.curl("http://127.0.0.1:8080/", "-o", "/dev/null", "-w", "%{http_code}")
    assert fetched.status == 0
    assert fetched.body + str(fetched.own_port) == "405"
    assert laboratory.fetch(THERE4, 7860).way == "proxied"
    laboratory.events.flow_to(remote(THERE4, 7860), mark)
    assert len(laboratory.events.since(mark)) == 3
    sidecar.stop()


def test_connections_from_the_machines_own_addresses_are_proxied(laboratory):
    for address in (HERE4, HERE6):
        laboratory.serve(1234, tell_peer, namespace=laboratory.here, address=address)
    laboratory.start_system()
    assert laboratory.fetch(HERE4, 1234).way == "proxied"
    assert laboratory.fetch(HERE6, 1234).way == "proxied"


def test_a_registered_exempt_application_is_left_alone(laboratory):
    laboratory.serve(80, tell_peer)
    vpn_client = laboratory.copy_of(CURL, "vpn-client")
    laboratory.register({vpn_client: EXEMPT_IDENTIFIER})
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    laboratory.start_extension()
    laboratory.wait_until_proxied()
    mark = proxy.mark()
    for host in (THERE4, THERE6):
        assert laboratory.curl(f"http://{host_text(host)}/", program=vpn_client).way == "direct"
    assert proxy.requests(mark) == []
    # The same program under another path is another application.
    other = laboratory.copy_of(CURL, "not-a-vpn-client")
    assert laboratory.curl(f"http://{THERE4}/", program=other).way == "proxied"


def test_an_application_cannot_name_itself_exempt(laboratory):
    laboratory.serve(80, tell_peer)
    laboratory.start_system()
    impostor = laboratory.copy_of(CURL, EXEMPT_IDENTIFIER)
    assert laboratory.curl(f"http://{THERE4}/", program=impostor).way == "proxied"


def test_a_registration_sets_the_identifier(laboratory):
    laboratory.serve(80, tell_peer)
    browser = laboratory.copy_of(CURL, "browser")
    laboratory.register({browser: "org.example.browser"})
    laboratory.start_system()
    assert laboratory.curl(f"http://{THERE4}/", program=browser).way == "proxied"
    context = laboratory.events.flow_to(remote(THERE4, 80))[0]["context"]
    assert context["app_id"] == "org.example.browser"


def test_registrations_are_reloaded_on_sighup(laboratory):
    laboratory.serve(80, tell_peer)
    vpn_client = laboratory.copy_of(CURL, "vpn-client")
    _, extension = laboratory.start_system()

    def check(registrations, says, way):
        laboratory.register(registrations, extension)
        mark = extension.errors.mark()
        extension.send_signal(signal.SIGHUP)
        for text in says:
            extension.expect(extension.errors, text, mark)
        assert laboratory.curl(f"http://{THERE4}/", program=vpn_client).way == way

    exempt = {vpn_client: EXEMPT_IDENTIFIER}
    check({}, ["Registrations replaced count=0"], "proxied")
    check(exempt, ["Registrations replaced count=1"], "direct")
    mistake = "/etc/ostravel/applications.d/test.json:1:"
    check("oops", [mistake, "Registrations not replaced"], "direct")
    check({}, ["Registrations replaced count=0"], "proxied")


@pytest.mark.parametrize("proxy", ["start_sidecar", "start_tinyproxy"])
def test_connections_of_the_local_proxy_are_left_alone(laboratory, proxy):
    laboratory.serve(80, tell_peer)
    start_proxy = getattr(laboratory, proxy)
    first, _ = laboratory.start_system(start_proxy)

    def check():
        mark = laboratory.events.mark()
        for host in (THERE4, THERE6):
            assert laboratory.curl(f"http://{host_text(host)}/").way == "proxied"
            laboratory.events.flow_to(remote(host, 80), mark)
        identifiers = [event["context"].get("app_id") for event in laboratory.events.since(mark)]
        assert identifiers == [CURL] * 6

    check()
    # A new process of the same program is recognised as well.
    mark = laboratory.events.mark()
    first.stop()
    laboratory.events.wait("proxy_unreachable", mark)
    start_proxy()
    laboratory.events.wait("proxy_recovered", mark)
    laboratory.wait_until_proxied()
    check()


def test_another_program_as_the_local_proxy_is_recognised(laboratory):
    laboratory.serve(80, tell_peer)
    sidecar, _ = laboratory.start_system()
    mark = laboratory.events.mark()
    sidecar.stop()
    laboratory.events.wait("proxy_unreachable", mark)
    laboratory.start_tinyproxy()
    laboratory.events.wait("proxy_recovered", mark)
    laboratory.wait_until_proxied()
    mark = laboratory.events.mark()
    for _ in range(3):
        assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
    laboratory.events.flows_to(remote(THERE4, 80), 3, mark)
    assert [event["context"]["app_id"] for event in laboratory.events.since(mark)] == [CURL] * 9


def test_applications_are_known_without_a_cgroup_file_system(laboratory):
    """If no BPF program can be attached, the process is searched for."""
    laboratory.serve(80, tell_peer)
    vpn_client = laboratory.copy_of(CURL, "vpn-client")
    laboratory.register({vpn_client: EXEMPT_IDENTIFIER})
    hide = 'umount -l -a -t cgroup2 && exec "$@"'
    laboratory.start_system(prefix=("sh", "-c", hide, "sh"))
    for _ in range(3):
        # A flow goes direct if the search takes too long, as it may on a busy machine.
        eventually(
            lambda: laboratory.curl(f"http://{THERE4}/").way == "proxied", "curl is proxied"
        )
        assert laboratory.curl(f"http://{THERE4}/", program=vpn_client).way == "direct"
    identifiers = {
        event["context"]["app_id"] for event in laboratory.events.since() if "flow_id" in event
    }
    assert identifiers == {CURL, PYTHON}


def send_datagram(laboratory, host, port):
    """The fate of a datagram, and how long it took."""
    with laboratory.socket(host, socket.SOCK_DGRAM) as application:
        application.settimeout(20)
        application.connect((host, port))
        start = time.monotonic()
        try:
            application.send(b"initial")
            outcome = application.recv(2048)
        except ConnectionRefusedError:
            outcome = "refused"
        return outcome, time.monotonic() - start


@pytest.mark.parametrize("host", [THERE4, THERE6])
def test_quic_is_refused_and_passes_while_the_proxy_is_down(laboratory, host):
    origins = [DatagramEcho(laboratory.there, port) for port in (443, 80, 4433)]
    sidecar, _ = laboratory.start_system()
    for port in (443, 80):
        for _ in range(3):
            outcome, seconds = send_datagram(laboratory, host, port)
            assert outcome == "refused"
            assert seconds < AT_ONCE_SECONDS
    assert [origin.peers for origin in origins] == [[], [], []]
    # Ports that are not selected.
    assert send_datagram(laboratory, host, 4433)[0] == b"initial"

    sidecar.kill()
    laboratory.events.wait("proxy_unreachable")
    for port in (443, 80):
        assert send_datagram(laboratory, host, port)[0] == b"initial"
    for origin in origins:
        origin.close()


def test_datagrams_to_the_machine_itself_are_not_touched(laboratory):
    origins = [DatagramEcho(laboratory.here, 443, address) for address in ("127.0.0.1", "::1")]
    laboratory.start_system()
    assert send_datagram(laboratory, "127.0.0.1", 443)[0] == b"initial"
    assert send_datagram(laboratory, "::1", 443)[0] == b"initial"
    for origin in origins:
        origin.close()


def test_an_existing_datagram_flow_continues(laboratory):
    """Only the first packet of a flow is ever examined."""
    origin = DatagramEcho(laboratory.there, 443)
    sidecar, _ = laboratory.start_system()
    sidecar.kill()
    laboratory.events.wait("proxy_unreachable")
    mark = laboratory.events.mark()
    with laboratory.socket(THERE4, socket.SOCK_DGRAM) as application:
        application.settimeout(20)
        application.connect((THERE4, 443))
        application.send(b"one")
        assert application.recv(2048) == b"one"
        laboratory.start_sidecar()
        laboratory.events.wait("proxy_recovered", mark)
        laboratory.wait_until_proxied()
        assert send_datagram(laboratory, THERE4, 443)[0] == "refused"
        application.send(b"two")
        assert application.recv(2048) == b"two"
    origin.close()


@pytest.mark.parametrize("host", [THERE4, THERE6])
def test_a_declined_flow_stays_with_the_application(laboratory, host):
    """Seen from the origin: its address and its port, even one that it has chosen itself."""
    laboratory.serve(80, tell_peer)
    laboratory.start_monitor()
    laboratory.start_extension()
    laboratory.events.wait("proxy_unreachable")
    fetched = laboratory.curl(f"http://{host_text(host)}/", "--local-port", "40123")
    assert fetched.body == f"{HERE6 if ':' in host else HERE4} 40123\n"
    assert fetched.own_port == 40123


def count_of(laboratory, comment):
    ruleset = laboratory.here.run("nft", "list", "table", "inet", "observer")
    return int(re.search(rf'counter packets (\d+) .*comment "{comment}"', ruleset).group(1))


def test_foreign_packet_marks_survive(laboratory):
    laboratory.serve(80, tell_peer)
    # After all our chains at this hook.
    laboratory.here.run(
        "nft", "-f", "-",
        given="""table inet observer {
          chain output {
            type filter hook output priority 300;
            tcp flags & (syn | ack) == syn mark == 0x1 counter comment "exactly"
            tcp flags & (syn | ack) == syn mark & 0xff == 0x1 counter comment "among others"
          }
        }""",
    )  # fmt: skip
    sidecar, _ = laboratory.start_system()

    def fetch_marked():
        with laboratory.socket(THERE4) as application:
            application.setsockopt(socket.SOL_SOCKET, SO_MARK, 0x1)
            application.settimeout(20)
            application.connect((THERE4, 80))
            application.sendall(b"GET / HTTP/1.0\r\n\r\n")
            assert receive_all(application).startswith(b"HTTP/1.1 200")

    fetch_marked()
    assert count_of(laboratory, "among others") == 1
    assert count_of(laboratory, "exactly") == 0

    sidecar.kill()
    laboratory.events.wait("proxy_unreachable")
    fetch_marked()
    assert count_of(laboratory, "among others") == 2
    assert count_of(laboratory, "exactly") == 1


def test_a_refusing_origin_is_reported_as_a_refusal(laboratory):
    """connect() reports the truth through a proxy as well."""
    laboratory.start_system()
    with laboratory.socket(THERE4) as application:
        application.settimeout(20)
        assert application.connect_ex((THERE4, 1234)) == errno.ECONNREFUSED


def test_an_application_that_gives_up_leaves_nothing_behind(laboratory):
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    laboratory.start_extension()
    laboratory.wait_until_proxied()
    proxy.behave(answer="", then="hold")
    proxy_mark = proxy.mark()
    with laboratory.socket(THERE4) as application:
        application.setblocking(False)
        assert application.connect_ex((THERE4, 80)) == errno.EINPROGRESS
        proxy.wait("asked", proxy_mark)
    # Its end sends no packet, so only the deadline ends the tunnel.
    target = remote(THERE4, 80)
    check_timed_out(laboratory.events.flow_to(target), PYTHON, target)
    proxy.wait("ended", proxy_mark)
    proxy.behave()
    eventually(lambda: laboratory.fetch(THERE4, 7860).way == "proxied", "flows are proxied")


def test_the_tools_used_here_are_the_systems():
    """The extension identifies an application by its executable file."""
    assert shutil.which("curl") == CURL
