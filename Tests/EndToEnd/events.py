"""The monitoring events of a run: how to receive them, and what each looks like."""

import datetime
import json
import re

UUID = re.compile(r"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")
CONNECTION_RESET = "Connection reset by peer"
CONNECTION_REFUSED = "Connection refused"


class AnyNumber:
    """Equal to every number that a measurement can return."""

    def __eq__(self, other):
        return isinstance(other, (int, float)) and not isinstance(other, bool) and other >= 0

    def __repr__(self):
        return "<a measurement>"


ANY_NUMBER = AnyNumber()


class EventStream:
    """The events that a monitor has printed as JSON so far."""

    def __init__(self, lines):
        self._lines = lines

    def mark(self):
        return self._lines.mark()

    def since(self, mark=0):
        return [json.loads(line) for line in self._lines.since(mark)]

    def _wait_for(self, matches, count, mark, what):
        """The first count events from mark on that match; they must come."""
        found = []

        def is_enough(line):
            event = json.loads(line)
            if matches(event):
                found.append(event)
            return len(found) == count

        enough = count == 0 or self._lines.wait(is_enough, mark)
        assert enough, f"only {len(found)} of {count} events arrived: {what}"
        return found

    def wait(self, signal, mark=0, **properties):
        """The first event from mark on with this signal and these properties; it must come."""
        return self.wait_for_count(signal, 1, mark, **properties)[0]

    def wait_for_count(self, signal, count, mark=0, **properties):
        """The first count events from mark on with this signal and these properties."""

        def matches(event):
            return event["current_signal"] == signal and all(
                event.get(key) == value for key, value in properties.items()
            )

        return self._wait_for(matches, count, mark, f"{signal} {properties or ''}")

    def flows_to(self, remote, count, mark=0):
        """The events of each of the first count flows to remote, when all of them have ended."""

        def matches(event):
            return event["current_signal"] == "connect_handshake_started" and (
                event["context"]["remote"] == remote
            )

        beginnings = self._wait_for(matches, count, mark, f"beginnings of a flow to {remote}")
        flows = {event["flow_id"]: [] for event in beginnings}

        def is_end(event):
            return event["current_signal"] == "tunnel_closed" and event["flow_id"] in flows

        self._wait_for(is_end, count, mark, f"ends of a flow to {remote}")
        for event in self.since(mark):
            if event.get("flow_id") in flows:
                flows[event["flow_id"]].append(event)
        return list(flows.values())

    def flow_to(self, remote, mark=0):
        """The events of the first flow to remote, when it has ended."""
        return self.flows_to(remote, 1, mark)[0]


def check_envelope(event):
    """The part that is the same in every event."""
    assert set(event) <= {
        "message_id", "timestamp", "logged_at", "type", "current_signal", "flow_id", "component",
        "level", "code", "message", "metrics", "context",
    }  # fmt: skip
    assert UUID.fullmatch(event["message_id"])
    assert event["type"] == "extension_proxy_event"
    assert event["component"] == "network_extension"
    if "flow_id" in event:
        assert UUID.fullmatch(event["flow_id"])
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", event["logged_at"])
    logged_at = datetime.datetime.fromisoformat(event["logged_at"]).timestamp()
    assert -0.1 < event["timestamp"] - logged_at < 1.1


def shape(event):
    """The event without the parts that differ between runs."""
    check_envelope(event)
    varying = ("message_id", "timestamp", "logged_at", "type", "component", "flow_id")
    return {key: value for key, value in event.items() if key not in varying}


def shapes(events):
    return [shape(event) for event in events]


def check_timed_out(flow, application, target):
    """The events of a flow that ended at its deadline.

    Closing the tunnel cancels the read that waits for the answer. The tunnel may or may not still
    exist to report that, so this one event may follow.
    """
    told = shapes(flow)
    assert told[:3] == [
        handshake_started(application, target),
        handshake_timed_out(application),
        tunnel_closed(application, "Proxy CONNECT handshake timed out"),
    ]
    assert told[3:] in ([], [handshake_read_failed("Operation canceled")])


def expected(signal, level, message, code=None, metrics=None, context=None):
    event = {
        "current_signal": signal,
        "code": f"extension.{code or signal}",
        "level": level,
        "message": message,
    }
    if metrics is not None:
        event["metrics"] = metrics
    if context is not None:
        event["context"] = context
    return event


def provider_started():
    return expected("provider_started", "info", "Transparent proxy provider started")


def provider_stopped(reason):
    return expected(
        "provider_stopped",
        "info",
        "Transparent proxy provider stopped",
        context={"reason": reason},
    )


def proxy_unreachable():
    return expected(
        "proxy_unreachable",
        "error",
        "Local proxy is unreachable; transparent proxy is bypassing new flows",
        context={"proxy": "127.0.0.1:8080"},
    )


def proxy_recovered():
    return expected(
        "proxy_recovered",
        "info",
        "Local proxy recovered; transparent proxy can handle new flows",
        context={"proxy": "127.0.0.1:8080"},
    )


def handshake_started(application, remote):
    return expected(
        "connect_handshake_started",
        "info",
        "Starting CONNECT handshake",
        context={"app_id": application, "remote": remote},
    )


def handshake_succeeded(application, leftover_bytes=0):
    return expected(
        "connect_handshake_succeeded",
        "info",
        "CONNECT handshake completed",
        metrics={"elapsed_ms": ANY_NUMBER, "leftover_bytes": leftover_bytes},
        context={"app_id": application},
    )


def handshake_rejected(application, status_line):
    return expected(
        "connect_handshake_rejected",
        "error",
        "CONNECT handshake failed with non-200 status",
        code="connect_handshake_non_200",
        context={"app_id": application, "status_line": status_line},
    )


def handshake_invalid(application, reason):
    return expected(
        "connect_handshake_invalid",
        "error",
        "CONNECT handshake response was invalid",
        context={"app_id": application, "reason": reason},
    )


def handshake_read_failed(detail):
    return expected(
        "connect_handshake_read_failed",
        "error",
        "Failed to read CONNECT response",
        context={"detail": detail},
    )


def handshake_timed_out(application):
    return expected(
        "connect_handshake_timed_out",
        "error",
        "CONNECT handshake timed out",
        metrics={"timeout_seconds": 5},
        context={"app_id": application},
    )


def backlog_exceeded(application):
    return expected(
        "connect_handshake_rejected",
        "error",
        "Rejected flow due to CONNECT handshake backlog",
        code="connect_handshake_backlog_exceeded",
        metrics={"pending_handshakes": 48},
        context={"app_id": application},
    )


def tunnel_closed(application, detail="eof"):
    is_orderly = detail == "eof"
    return expected(
        "tunnel_closed",
        "info" if is_orderly else "error",
        "Tunnel closed" if is_orderly else "Tunnel closed with error",
        context={"app_id": application, "detail": detail},
    )
