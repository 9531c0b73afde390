"""Local proxies that answer well and badly, as seen by the application and in the events."""

import errno
import os
import select
import socket
import time

import pytest

from Laboratory.network import THERE4, THERE6
from events import (
    CONNECTION_REFUSED,
    CONNECTION_RESET,
    backlog_exceeded,
    check_timed_out,
    handshake_invalid,
    handshake_read_failed,
    handshake_rejected,
    handshake_started,
    handshake_succeeded,
    shapes,
    tunnel_closed,
)
from laboratory import CURL, PEER_PORT, PYTHON, eventually, receive_all, receive_exactly, remote
from origins import tell_peer

DEADLINE_SECONDS = 5
# Possible delay of anything on a busy machine.
LATENESS_SECONDS = 5
CURL_COULD_NOT_CONNECT = 7


@pytest.fixture
def proxy(laboratory):
    """A local proxy that the extension uses, with the monitor running."""
    made, _ = laboratory.start_system(laboratory.start_local_proxy)
    return made


# name: (what the proxy does, the resulting event)
REFUSALS = {
    "403": (
        {"answer": "HTTP/1.1 403 Forbidden\r\nContent-Length: 2\r\n\r\nno", "then": "end"},
        handshake_rejected(CURL, "HTTP/1.1 403 Forbidden"),
    ),
    "502": (
        {"answer": "HTTP/1.0 502 Bad Gateway\r\n\r\n", "then": "end"},
        handshake_rejected(CURL, "HTTP/1.0 502 Bad Gateway"),
    ),
    # A proxy that has refused need not close its connection.
    "407 of a proxy that keeps the connection": (
        {
            "answer": "HTTP/1.1 407 Proxy Authentication Required\r\n"
            "Proxy-Authenticate: Basic\r\n\r\n",
            "then": "hold",
        },
        handshake_rejected(CURL, "HTTP/1.1 407 Proxy Authentication Required"),
    ),
    "another protocol": (
        {"answer": "SSH-2.0-Something\r\n\r\n", "then": "hold"},
        handshake_rejected(CURL, "SSH-2.0-Something"),
    ),
    "garbage": (
        {"answer": "\x00\xff\xfe garbage\r\n\r\n", "then": "hold"},
        handshake_invalid(CURL, "connect_header_not_utf8"),
    ),
    "no status line": (
        {"answer": "\r\n\r\n", "then": "hold"},
        handshake_invalid(CURL, "connect_status_line_missing"),
    ),
    "a header of 20 KB": (
        {
            "answer": "HTTP/1.1 200 OK\r\nX-Padding: " + "x" * 20 * 1024 + "\r\n\r\n",
            "then": "hold",
        },
        handshake_invalid(CURL, "connect_header_too_large"),
    ),
    "half a header and then the end": (
        {"answer": "HTTP/1.1 200 Connection estab", "then": "end"},
        None,
    ),
    "the end without an answer": ({"answer": "", "then": "end"}, None),
}


@pytest.mark.parametrize("name", REFUSALS)
def test_a_refused_handshake_refuses_the_application(laboratory, proxy, name):
    behaviour, event = REFUSALS[name]
    proxy.behave(**behaviour)
    begin = time.monotonic()
    assert laboratory.curl(f"http://{THERE4}/").status == CURL_COULD_NOT_CONNECT
    # Not after the deadline.
    assert time.monotonic() - begin < DEADLINE_SECONDS
    target = remote(THERE4, 80)
    assert shapes(laboratory.events.flow_to(target)) == [
        handshake_started(CURL, target),
        *([event] if event else []),
        tunnel_closed(CURL),
    ]
    # The proxy does answer, so flows are still offered to it.
    mark = proxy.mark()
    assert laboratory.curl(f"http://{THERE4}/").status == CURL_COULD_NOT_CONNECT
    assert len(proxy.requests(mark)) == 1


ACCEPTED_ANSWERS = {
    "with fields": "HTTP/1.1 200 OK\r\nVia: someone\r\nX: y\r\n\r\n",
    "shortest": "HTTP/1.1 200\r\n\r\n",
    "old": "HTTP/1.0 200 Connection established\r\n\r\n",
    "blanks around": "  HTTP/1.1 200 OK\t\r\n\r\n",
    "just short enough": "HTTP/1.1 200 OK\r\nX: " + "x" * 16000 + "\r\n\r\n",
}


@pytest.mark.parametrize("name", ACCEPTED_ANSWERS)
def test_an_accepted_handshake_connects_the_application(laboratory, proxy, name):
    proxy.behave(answer=ACCEPTED_ANSWERS[name])
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"


def test_an_answer_may_come_byte_by_byte(laboratory, proxy):
    laboratory.serve(80, lambda connection, _: connection.sendall(b"220 ready\r\n"))
    proxy.behave(pieces=1)
    with laboratory.connect(THERE4, 80) as application:
        assert receive_all(application) == b"220 ready\r\n"


@pytest.mark.parametrize("host", [THERE4, THERE6])
def test_bytes_after_the_answer_belong_to_the_application(laboratory, proxy, host):
    greeting = bytes(range(256)) * 8

    def greet_and_echo(connection, _):
        connection.sendall(greeting)
        while received := connection.recv(65536):
            connection.sendall(received)

    laboratory.serve(5000, greet_and_echo)
    proxy.behave(joined=True)
    with laboratory.connect(host, 5000) as application:
        assert receive_exactly(application, len(greeting)) == greeting
        application.sendall(b"and on")
        assert receive_exactly(application, 6) == b"and on"
    flow = laboratory.events.flow_to(remote(host, 5000))
    assert shapes(flow) == [
        handshake_started(PYTHON, remote(host, 5000)),
        handshake_succeeded(PYTHON, leftover_bytes=len(greeting)),
        tunnel_closed(PYTHON),
    ]


def test_a_proxy_that_resets_is_not_used_before_the_next_probe(laboratory, proxy):
    laboratory.serve(80, lambda connection, _: connection.sendall(b"hello"))
    proxy.behave(answer="", then="reset")
    mark = proxy.mark()
    with laboratory.connect(THERE4, 80) as application:
        # From the origin, which the proxy never reached.
        assert receive_all(application) == b"hello"
    failed_at = proxy.wait("asked", mark)["accepted_at"]
    assert shapes(laboratory.events.flow_to(remote(THERE4, 80))) == [
        handshake_started(PYTHON, remote(THERE4, 80)),
        handshake_read_failed(CONNECTION_RESET),
        tunnel_closed(PYTHON, CONNECTION_RESET),
    ]
    check_that_flows_are_direct_until_the_next_probe(laboratory, proxy, failed_at)


def check_that_flows_are_direct_until_the_next_probe(laboratory, proxy, failed_at):
    proxy.behave()
    mark = proxy.mark()
    flows = []

    def fetch():
        begin = time.monotonic()
        way = laboratory.fetch(THERE4, PEER_PORT).way
        flows.append((begin, time.monotonic(), way))
        return way == "proxied"

    eventually(fetch, "flows are proxied again")
    asked = proxy.wait("asked", mark)["accepted_at"]
    accepted = [report["accepted_at"] for report in proxy.reports("probed")]
    probes = [at for at in accepted if at > failed_at]
    # Only a probe opens the gate: no flow was proxied before the next one.
    assert probes and probes[0] < asked
    assert all(way == "direct" for _, end, way in flows if end < probes[0])
    assert {way for _, _, way in flows} <= {"direct", "proxied"}
    assert laboratory.events.since()[-1]["current_signal"] != "proxy_recovered"


def test_a_silent_proxy_has_five_seconds(laboratory, proxy):
    laboratory.serve(80, tell_peer)
    proxy.behave(answer="", then="hold")
    mark = proxy.mark()
    begin = time.monotonic()
    fetched = laboratory.fetch(THERE4, 80)
    end = time.monotonic()
    assert fetched.way == "direct"
    assert DEADLINE_SECONDS <= end - begin < DEADLINE_SECONDS + LATENESS_SECONDS
    # The proxy's connection is ended as well.
    proxy.wait("ended", mark)
    target = remote(THERE4, 80)
    check_timed_out(laboratory.events.flow_to(target), PYTHON, target)
    # The gate closes together with the tunnel. The application notices later, perhaps only after
    # the next probe.
    failed_at = begin + DEADLINE_SECONDS
    check_that_flows_are_direct_until_the_next_probe(laboratory, proxy, failed_at)


def test_curl_bypasses_a_silent_proxy(laboratory, proxy):
    laboratory.serve(80, tell_peer)
    proxy.behave(answer="HTTP/1.1 200 Conn", then="hold")
    assert laboratory.curl(f"http://{THERE4}/").way == "direct"
    target = remote(THERE4, 80)
    flow = laboratory.events.flow_to(target)
    check_timed_out(flow, CURL, target)
    # Excluding the time that curl takes to start.
    assert flow[1]["timestamp"] - flow[0]["timestamp"] < DEADLINE_SECONDS + LATENESS_SECONDS


def test_a_missing_proxy_costs_no_connection(laboratory, proxy):
    """Before the next probe, the first flow finds that the proxy is gone, and is given back."""
    mark = laboratory.events.mark()
    proxy.program.kill()
    for _ in range(6):
        assert laboratory.curl(f"http://{THERE4}:{PEER_PORT}/").way == "direct"
    laboratory.events.wait("proxy_unreachable", mark)
    closed = [
        event
        for event in laboratory.events.since(mark)
        if event["current_signal"] == "tunnel_closed"
    ]
    assert shapes(closed) in ([], [tunnel_closed(CURL, CONNECTION_REFUSED)])


def start_connecting(laboratory, count, user=0):
    applications = []
    with laboratory.here:
        os.seteuid(user)
        try:
            for _ in range(count):
                application = socket.socket()
                application.setblocking(False)
                assert application.connect_ex((THERE4, 80)) == errno.EINPROGRESS
                applications.append(application)
        finally:
            os.seteuid(0)
    return applications


def wait_for_outcomes(applications, seconds, count):
    """The errors of the first count connections to finish, in order of time."""
    poller = select.poll()
    waiting = {}
    for application in applications:
        poller.register(application, select.POLLOUT)
        waiting[application.fileno()] = application
    outcomes = []
    deadline = time.monotonic() + seconds
    while len(outcomes) < count and (left := deadline - time.monotonic()) > 0:
        for descriptor, _ in poller.poll(left * 1000):
            poller.unregister(descriptor)
            application = waiting.pop(descriptor)
            error = application.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
            outcomes.append(error)
    return outcomes, list(waiting.values())


def test_a_silent_proxy_leaves_half_of_the_handshakes_to_others(laboratory, proxy):
    count, share = 200, 24
    proxy.behave(answer="", then="hold")
    laboratory.serve(80, lambda connection, _: connection.sendall(b"hello"))
    proxy_mark, mark = proxy.mark(), laboratory.events.mark()
    begin = time.monotonic()
    applications = start_connecting(laboratory, count)

    # All beyond the user's share go direct at once, without any event.
    direct, waiting = wait_for_outcomes(applications, DEADLINE_SECONDS - 1, count - share)
    assert time.monotonic() - begin < DEADLINE_SECONDS - 1
    assert direct == [0] * (count - share)
    assert len(waiting) == share

    # The others go direct when the deadline ends their handshakes.
    timed_out, waiting = wait_for_outcomes(waiting, DEADLINE_SECONDS + LATENESS_SECONDS, share)
    assert time.monotonic() - begin >= DEADLINE_SECONDS
    assert timed_out == [0] * share
    assert waiting == []
    target = remote(THERE4, 80)
    for flow in laboratory.events.flows_to(target, share, mark):
        check_timed_out(flow, PYTHON, target)
    signals = [event["current_signal"] for event in laboratory.events.since(mark)]
    assert signals.count("connect_handshake_started") == share
    assert signals.count("connect_handshake_rejected") == 0
    for application in applications:
        application.close()

    # Back to the initial state.
    assert len(proxy.requests(proxy_mark)) == share
    proxy.behave()
    laboratory.wait_until_proxied()
    mark = laboratory.events.mark()
    applications = start_connecting(laboratory, share)
    connected, _ = wait_for_outcomes(applications, 20, share)
    assert connected == [0] * share
    laboratory.events.wait_for_count("connect_handshake_succeeded", share, mark)
    for application in applications:
        application.close()


def test_the_48_handshakes_are_shared_and_one_more_is_given_back(laboratory, proxy):
    alice, bob, carol = 4711, 4712, 4713
    share = 24
    proxy.behave(answer="", then="hold")
    laboratory.serve(80, lambda connection, _: connection.sendall(b"hello"))
    mark = laboratory.events.mark()
    waiting = [
        application
        for user in (alice, bob)
        for application in start_connecting(laboratory, share, user)
    ]
    laboratory.events.wait_for_count("connect_handshake_started", 2 * share, mark)

    # Reported as usual, and the connection works nevertheless.
    late = start_connecting(laboratory, 3, carol)
    assert wait_for_outcomes(late, DEADLINE_SECONDS - 1, 3)[0] == [0] * 3
    rejections = laboratory.events.wait_for_count("connect_handshake_rejected", 3, mark)
    assert shapes(rejections) == [backlog_exceeded(PYTHON)] * 3

    outcomes, _ = wait_for_outcomes(waiting, DEADLINE_SECONDS + LATENESS_SECONDS, 2 * share)
    assert outcomes == [0] * (2 * share)
    for application in (*waiting, *late):
        application.close()


def test_a_silent_proxy_is_tried_with_one_flow_at_a_time(laboratory, proxy):
    laboratory.serve(80, lambda connection, _: connection.sendall(b"hello"))
    proxy.behave(answer="", then="hold")
    first = start_connecting(laboratory, 1)
    assert wait_for_outcomes(first, DEADLINE_SECONDS + LATENESS_SECONDS, 1)[0] == [0]
    # The probe reopens the gate, and one flow finds that nothing has changed.
    mark = laboratory.events.mark()
    applications = []

    def is_trying():
        applications.extend(start_connecting(laboratory, 5))
        return any(
            event["current_signal"] == "connect_handshake_started"
            for event in laboratory.events.since(mark)
        )

    eventually(is_trying, "another handshake is tried")
    applications.extend(start_connecting(laboratory, 50))
    begin = time.monotonic()
    outcomes, waiting = wait_for_outcomes(applications, DEADLINE_SECONDS - 2, len(applications) - 1)
    assert time.monotonic() - begin < DEADLINE_SECONDS - 2
    assert set(outcomes) == {0}
    assert len(waiting) == 1
    # Another user's flows have not timed out.
    other = start_connecting(laboratory, 2, 4711)
    laboratory.events.wait_for_count("connect_handshake_started", 3, mark)
    outcomes, _ = wait_for_outcomes([*waiting, *other], DEADLINE_SECONDS + LATENESS_SECONDS, 3)
    assert outcomes == [0] * 3
    for application in (*first, *applications, *other):
        application.close()

    # A success ends the trial.
    proxy.behave()
    laboratory.wait_until_proxied()
    mark = laboratory.events.mark()
    applications = start_connecting(laboratory, 10)
    laboratory.events.wait_for_count("connect_handshake_succeeded", 10, mark)
    for application in applications:
        application.close()


def test_flows_that_are_established_do_not_count_as_waiting(laboratory, proxy):
    def hold(connection, _):
        connection.recv(1)

    laboratory.serve(80, hold)
    held = [laboratory.connect(THERE4, 80) for _ in range(60)]
    mark = proxy.mark()
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    assert len(proxy.requests(mark)) == 1
    for application in held:
        application.close()
