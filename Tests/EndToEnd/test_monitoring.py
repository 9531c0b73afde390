"""What is reported about a run, and that reporting never blocks anything."""

import contextlib
import json
import os
import re
import signal
import socket
import struct

import pytest

from Laboratory.lines import Lines
from Laboratory.network import THERE4, THERE6
from events import (
    CONNECTION_REFUSED,
    EventStream,
    handshake_started,
    handshake_succeeded,
    provider_started,
    provider_stopped,
    proxy_recovered,
    proxy_unreachable,
    shapes,
    tunnel_closed,
)
from laboratory import CURL, PEER_PORT, PYTHON, eventually, log_lines, remote
from origins import tell_peer
from test_web import flow_that_ended, send_events

SEND_FAILED = "OstravelProxy monitoring send failed: "
LOST = "OstravelProxy monitoring events lost: "


def flow_events(application, target):
    return [
        handshake_started(application, target),
        handshake_succeeded(application),
        tunnel_closed(application),
    ]


def test_the_events_of_a_run_are_exactly_these(laboratory):
    laboratory.serve(80, tell_peer)
    monitor = laboratory.start_monitor()
    events = laboratory.events
    extension = laboratory.start_extension()
    events.wait("proxy_unreachable")
    assert laboratory.fetch(THERE4, 80).way == "direct"
    laboratory.start_sidecar()
    events.wait("proxy_recovered")
    laboratory.wait_until_proxied()
    assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
    events.wait_for_count("tunnel_closed", 2)
    assert laboratory.curl(f"http://[{THERE6}]/").way == "proxied"
    events.wait_for_count("tunnel_closed", 3)
    assert laboratory.fetch(THERE6, 80).way == "proxied"
    events.wait_for_count("tunnel_closed", 4)
    assert extension.stop() == 0
    events.wait("provider_stopped")

    told = events.since()
    # The first probe runs beside the start.
    beginning = sorted(shapes(told[:2]), key=lambda event: event["current_signal"])
    assert beginning == [provider_started(), proxy_unreachable()]
    assert shapes(told[2:]) == [
        proxy_recovered(),
        *flow_events(PYTHON, remote(THERE4, PEER_PORT)),
        *flow_events(CURL, remote(THERE4, 80)),
        *flow_events(CURL, remote(THERE6, 80)),
        *flow_events(PYTHON, remote(THERE6, 80)),
        provider_stopped("1"),
    ]
    # An identifier for each event, and for each flow, which its events share.
    assert len({event["message_id"] for event in told}) == len(told)
    flow_ids = [event["flow_id"] for event in told if "flow_id" in event]
    assert len(set(flow_ids)) == 4
    assert flow_ids == [flow_id for flow_id in flow_ids[::3] for _ in range(3)]
    times = [event["timestamp"] for event in told[2:]]
    assert times == sorted(times)
    assert monitor.errors.since()[1:] == []


def test_the_log_of_a_run_is_exactly_this(laboratory):
    laboratory.serve(80, tell_peer)
    laboratory.start_monitor()
    extension = laboratory.start_extension()
    laboratory.events.wait("proxy_unreachable")
    sidecar = laboratory.start_sidecar()
    laboratory.events.wait("proxy_recovered")
    found = f"the local proxy is {sidecar.process.args[-1]} (process {sidecar.pid}, user root)"
    extension.expect(extension.errors, found)
    laboratory.wait_until_proxied()
    assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
    laboratory.events.wait_for_count("tunnel_closed", 2)
    assert extension.stop(signal.SIGINT) == 0
    assert log_lines(extension) == [
        ("info", "OstravelProxy: init()"),
        ("info", "OstravelProxy: Starting Proxy provider..."),
        ("info", "OstravelProxy: Rules summary included=32 excluded=2 httpsOnly=false"),
        ("info", "OstravelProxy: Registrations in force count=0"),
        ("info", "OstravelProxy: Rules set successfully"),
        ("info", f"OstravelProxy: {found}"),
        *[
            ("default", "OstravelProxy: Sending CONNECT handshake (details private)"),
            ("info", "OstravelProxy: Handshake successful."),
        ]
        * 2,
        ("info", "OstravelProxy: Stopping Proxy"),
        ("info", "OstravelProxy: deinit"),
    ]


def failures_in(extension):
    return [text for _, text in log_lines(extension) if SEND_FAILED in text]


def test_events_can_be_piped_into_jq(laboratory):
    # As with a pipeline, but the end of the monitor, which the laboratory kills, ends jq, too.
    jq = laboratory.start(
        ["bash", "-c",
         'exec "$0" --json --summary --socket "$1" > >(jq --unbuffered -r "$2")',
         laboratory.program_path("ostravel-monitor"), laboratory.socket_path,
         'select(.context.remote) | .context.app_id + " to " + .context.remote'],
        name="jq",
    )  # fmt: skip
    jq.expect(jq.errors, "listening on")
    # A name with everything that a terminal or a shell could take for something else.
    application = "/opt/a \"name\"\t\x1b[31m/größe"
    send_events(laboratory.socket_path, flow_that_ended(application, "example.org:443", 0))
    assert jq.output.wait(lambda line: line.endswith(" to example.org:443"))
    assert jq.output.since() == [f"{application} to example.org:443"]


def test_without_a_monitor_each_event_costs_one_log_line(laboratory):
    laboratory.serve(80, tell_peer)
    extension = laboratory.start_extension()
    # Optional, in any order: the start and the unreachable proxy.
    eventually(lambda: len(failures_in(extension)) == 2, "two lines")
    laboratory.start_sidecar()
    # The recovery.
    eventually(lambda: len(failures_in(extension)) == 3, "three lines")
    eventually(lambda: laboratory.fetch(THERE4, 80).way == "proxied", "flows are proxied")
    for count in (9, 12, 15):
        assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
        eventually(lambda count=count: len(failures_in(extension)) == count, f"{count} lines")
    assert set(failures_in(extension)) == {
        SEND_FAILED
        + 'Error Domain=NSPOSIXErrorDomain Code=2 "Failed to connect to monitoring socket"'
    }
    assert extension.stop() == 0
    assert len(failures_in(extension)) == 16
    # Explained once a minute, whichever event was the first.
    explanations = [text for _, text in log_lines(extension) if LOST in text]
    assert explanations[0] == f"{LOST}1 for {laboratory.socket_path}: there is no socket"


def test_a_missing_monitor_counts_as_a_refusal(laboratory):
    extension = laboratory.start_extension()
    eventually(lambda: len(failures_in(extension)) == 2, "two lines")
    with socket.socket(socket.AF_UNIX) as left_behind:
        left_behind.bind(laboratory.socket_path)
    laboratory.start_sidecar()
    refused = 'Error Domain=NSPOSIXErrorDomain Code=111 "Failed to connect to monitoring socket"'
    eventually(lambda: failures_in(extension)[-1] == SEND_FAILED + refused, "a refusal")


def test_without_a_configured_socket_nothing_is_sent(laboratory):
    laboratory.serve(80, tell_peer)
    laboratory.start_sidecar()
    extension = laboratory.run_extension("--configuration", laboratory.write_configuration("{}"))
    extension.expect(extension.errors, "Rules set successfully")
    eventually(lambda: laboratory.curl(f"http://{THERE4}/").way == "proxied", "a proxied request")
    assert extension.stop() == 0
    assert failures_in(extension) == []


@pytest.mark.parametrize("value", ['"  %s\\n\\t "', '"%s"'])
def test_white_space_around_the_path_does_not_matter(laboratory, value):
    laboratory.start_monitor()
    text = '{"monitoringSocketPath": ' + value % laboratory.socket_path + ', "other": [1, null]}'
    laboratory.run_extension("--configuration", laboratory.write_configuration(text))
    laboratory.events.wait("provider_started")


@pytest.mark.parametrize("value", ["17", "null", '"  "', '["/tmp/x"]'])
def test_an_unusable_path_sends_nothing(laboratory, value):
    text = f'{{"monitoringSocketPath": {value}}}'
    extension = laboratory.run_extension("--configuration", laboratory.write_configuration(text))
    extension.expect(extension.errors, "Rules set successfully")
    assert extension.stop() == 0
    assert failures_in(extension) == []


def test_a_too_long_path_is_reported(laboratory):
    path = laboratory.path("x" * 100)
    text = json.dumps({"monitoringSocketPath": path})
    extension = laboratory.run_extension("--configuration", laboratory.write_configuration(text))
    too_long = 'Error Domain=OstravelProxy Code=1101 "Monitoring socket path too long"'
    extension.expect(extension.errors, SEND_FAILED + too_long)
    assert extension.stop() == 0


def test_a_monitor_may_start_late_and_restart(laboratory):
    laboratory.serve(80, tell_peer)
    laboratory.start_sidecar()
    laboratory.start_extension()
    eventually(lambda: laboratory.fetch(THERE4, 80).way == "proxied", "a proxied request")
    for _ in range(2):
        monitor = laboratory.start_monitor()
        # Earlier events are not reported any more, or only the last ones.
        assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
        flow = laboratory.events.flow_to(remote(THERE4, 80))
        assert shapes(flow) == flow_events(CURL, remote(THERE4, 80))
        assert monitor.stop() == 0
        assert not os.path.exists(laboratory.socket_path)
        assert laboratory.curl(f"http://{THERE4}/").way == "proxied"


class StalledMonitor:
    """Listens but does not accept: the second connection has to wait."""

    def __init__(self, path):
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(path)
        self._listener.listen(0)
        self._listener.settimeout(30)

    def receive(self):
        """The next event."""
        connection, _ = self._listener.accept()
        with connection, connection.makefile("rb") as stream:
            connection.settimeout(30)
            (size,) = struct.unpack(">I", stream.read(4))
            body = stream.read()
            assert len(body) == size
            return json.loads(body)

    def close(self):
        self._listener.close()


def test_a_monitor_that_accepts_late_blocks_and_misses_nothing(laboratory):
    laboratory.serve(80, tell_peer)
    monitor = StalledMonitor(laboratory.socket_path)
    sidecar = laboratory.start_sidecar()
    extension = laboratory.start_extension()
    eventually(lambda: laboratory.fetch(THERE4, 7860).way == "proxied", "flows are proxied")
    target = remote(THERE4, 80)
    requests = 20
    for _ in range(requests):
        assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
    sidecar.kill()
    # The health of the proxy is monitored nevertheless.
    eventually(lambda: laboratory.fetch(THERE4, 7860).way == "direct", "flows are direct")
    assert failures_in(extension) == []

    # Now it reads, and receives everything in order.
    lines = Lines()
    while True:
        event = monitor.receive()
        lines.append(json.dumps(event))
        if event["current_signal"] == "proxy_unreachable":
            break
    monitor.close()
    events = EventStream(lines).since()
    assert shapes(events[:1]) == [provider_started()]
    flow_ids = [
        event["flow_id"]
        for event in events
        if event["current_signal"] == "connect_handshake_started"
        and event["context"]["remote"] == target
    ]
    assert len(flow_ids) == requests
    for flow_id in flow_ids:
        own = [event for event in events if event.get("flow_id") == flow_id]
        assert shapes(own) == flow_events(CURL, target)


@contextlib.contextmanager
def monitored_by_hand(laboratory, backlog):
    """The socket at which the test plays the monitor, and the extension; flows are proxied."""
    laboratory.serve(80, tell_peer)
    laboratory.start_sidecar()
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(laboratory.socket_path)
        listener.listen(backlog)
        listener.settimeout(30)
        extension = laboratory.start_extension()
        eventually(lambda: laboratory.fetch(THERE4, 80).way == "proxied", "flows are proxied")
        yield listener, extension


def test_a_monitor_that_does_not_read_blocks_nothing(laboratory):
    with monitored_by_hand(laboratory, 1024) as (listener, extension):
        held = [listener.accept()[0]]
        for _ in range(20):
            assert laboratory.fetch(THERE4, 80).way == "proxied"
            held.append(listener.accept()[0])
        for connection in held:
            connection.close()
    assert extension.process.poll() is None


def test_a_monitor_that_closes_at_once_blocks_nothing(laboratory):
    """Writing to it fails, and does not end the process."""
    with monitored_by_hand(laboratory, 0) as (listener, extension):
        for _ in range(20):
            listener.accept()[0].close()
            assert laboratory.fetch(THERE4, 80).way == "proxied"
    assert laboratory.fetch(THERE4, 80).way == "proxied"
    assert extension.process.poll() is None
    assert extension.stop() == 0
    for failure in failures_in(extension):
        assert re.search(r'Code=\d+ "Failed to (write monitoring frame|connect to )', failure)


def test_what_a_monitor_sends_is_ignored(laboratory):
    with monitored_by_hand(laboratory, 1024) as (listener, extension):
        talking = []
        for _ in range(20):
            assert laboratory.fetch(THERE4, 80).way == "proxied"
            monitor = listener.accept()[0]
            monitor.setblocking(False)
            with contextlib.suppress(BlockingIOError, BrokenPipeError, ConnectionResetError):
                while monitor.send(bytes(65536)):
                    pass
            talking.append(monitor)
        assert laboratory.fetch(THERE4, 80).way == "proxied"
        for monitor in talking:
            monitor.close()
    assert extension.stop() == 0


def test_a_flow_without_a_proxy_is_reported(laboratory):
    laboratory.serve(80, tell_peer)
    sidecar, _ = laboratory.start_system()

    def find_out():
        """True if an application precedes the probe, as it nearly always does."""
        nonlocal sidecar
        mark = laboratory.events.mark()
        sidecar.kill()
        assert laboratory.fetch(THERE4, 80).way == "direct"
        laboratory.events.wait("proxy_unreachable", mark)
        events = laboratory.events.since(mark)
        sidecar = laboratory.start_sidecar()
        laboratory.events.wait("proxy_recovered", mark)
        laboratory.wait_until_proxied()
        return events if len(events) > 1 else None

    events = eventually(find_out, "an application finds out")
    assert shapes(events) == [tunnel_closed(PYTHON, CONNECTION_REFUSED), proxy_unreachable()]
