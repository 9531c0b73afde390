"""The local proxy goes away and comes back while applications work."""

import threading
import time
from typing import NamedTuple

import pytest

from Laboratory.network import THERE4
from events import proxy_recovered, proxy_unreachable, shapes
from laboratory import eventually
from origins import tell_peer

WORKERS = 4


class Request(NamedTuple):
    begin: float
    end: float
    status: int
    way: str


class Load:
    """Applications that send one request after the other, each in a separate process."""

    def __init__(self, laboratory):
        self._laboratory = laboratory
        self._is_wanted = True
        self._lock = threading.Lock()
        self._requests = []
        self._threads = [threading.Thread(target=self._work) for _ in range(WORKERS)]
        for thread in self._threads:
            thread.start()

    def _work(self):
        while self._is_wanted:
            begin = time.time()
            fetched = self._laboratory.curl(f"http://{THERE4}/")
            request = Request(begin, time.time(), fetched.status, fetched.way)
            with self._lock:
                self._requests.append(request)

    def since(self, begin):
        with self._lock:
            return [request for request in self._requests if request.begin >= begin]

    def wait_for(self, way, count):
        """Waits until that many requests that begin from now on have taken that path."""
        begin = time.time()
        eventually(
            lambda: sum(request.way == way for request in self.since(begin)) >= count,
            f"{count} requests {way}",
        )

    def stop(self):
        self._is_wanted = False
        for thread in self._threads:
            thread.join()


@pytest.mark.parametrize("start_proxy", ["start_sidecar", "start_tinyproxy"])
def test_killing_the_proxy_fails_only_its_tunnels(laboratory, start_proxy):
    laboratory.serve(80, tell_peer)
    start = getattr(laboratory, start_proxy)
    proxy, _ = laboratory.start_system(start)
    first_mark = laboratory.events.mark()
    load = Load(laboratory)
    try:
        for _ in range(2):
            begun_at, mark = time.time(), laboratory.events.mark()
            load.wait_for("proxied", 2 * WORKERS)
            killed_at = time.time()
            proxy.kill()
            laboratory.events.wait("proxy_unreachable", mark)
            load.wait_for("direct", 2 * WORKERS)
            restarted_at = time.time()
            proxy = start()
            laboratory.events.wait("proxy_recovered", mark)
            laboratory.wait_until_proxied()
            recovered_at = time.time()
            load.wait_for("proxied", 2 * WORKERS)

            requests = load.since(begun_at)
            closed_at = closing_of_gate(laboratory, mark)
            check_failures(requests, killed_at, closed_at)
            while_it_was_away = [
                request.way
                for request in requests
                if closed_at < request.begin and request.end < restarted_at
            ]
            assert while_it_was_away and set(while_it_was_away) == {"direct"}
            afterwards = {request.way for request in requests if request.begin > recovered_at}
            assert afterwards == {"proxied"}
    finally:
        load.stop()
    # After it, nothing can be in progress.
    laboratory.wait_until_proxied()
    health = [event for event in laboratory.events.since(first_mark) if "flow_id" not in event]
    assert shapes(health) == [proxy_unreachable(), proxy_recovered()] * 2


def closing_of_gate(laboratory, mark):
    """When new flows were first left alone: a probe or a flow had detected the failure."""
    events = laboratory.events.since(mark)
    established = {
        event["flow_id"]
        for event in events
        if event["current_signal"] == "connect_handshake_succeeded"
    }
    return min(
        event["timestamp"]
        for event in events
        if event["current_signal"] == "proxy_unreachable"
        or (
            event["current_signal"] == "tunnel_closed"
            and event["level"] == "error"
            and event["flow_id"] not in established
        )
    )


def check_failures(requests, killed_at, closed_at):
    failed = [request for request in requests if request.status != 0]
    assert all(request.end >= killed_at for request in failed)
    assert all(request.begin <= closed_at for request in failed)
    # Each application may have had one in progress, and begun another before the failure was
    # detected.
    assert len(failed) <= 2 * WORKERS


def test_flows_are_direct_before_the_proxy_starts(laboratory):
    laboratory.start_monitor()
    laboratory.start_extension()
    laboratory.events.wait("proxy_unreachable")
    for _ in range(10):
        assert laboratory.fetch(THERE4, 7860).way == "direct"
    laboratory.start_sidecar()
    laboratory.events.wait("proxy_recovered")
    laboratory.wait_until_proxied()


def test_tunnels_continue_while_new_flows_are_direct(laboratory):
    """A failed probe affects new flows only."""

    def echo(connection, _):
        while received := connection.recv(100):
            connection.sendall(received)

    laboratory.serve(80, echo)
    sidecar, _ = laboratory.start_system()
    with laboratory.connect(THERE4, 80) as application:
        application.sendall(b"one")
        assert application.recv(100) == b"one"
        # Only the listening socket: accepted connections stay. New ones are reset.
        laboratory.here.run(
            "nft", "-f", "-",
            given="""table inet closed {
              chain input {
                type filter hook input priority 0;
                tcp dport 8080 tcp flags & (syn | ack) == syn reject with tcp reset
              }
            }""",
        )  # fmt: skip
        laboratory.events.wait("proxy_unreachable")
        assert laboratory.fetch(THERE4, 7860).way == "direct"
        application.sendall(b"two")
        assert application.recv(100) == b"two"
        laboratory.here.run("nft", "delete", "table", "inet", "closed")
        laboratory.events.wait("proxy_recovered")
        assert laboratory.fetch(THERE4, 7860).way == "proxied"
        application.sendall(b"three")
        assert application.recv(100) == b"three"
    assert sidecar.process.poll() is None
