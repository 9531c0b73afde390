"""A log that is not read, or cannot be written, stops nothing."""

import os
import signal

from Laboratory.network import THERE4
from laboratory import PEER_PORT, eventually, log_lines

# Each causes at least two lines: far more than a pipe holds, about 400 connections.
CONNECTIONS = 1200


def start_unread(laboratory):
    laboratory.start_monitor()
    laboratory.start_sidecar()
    extension = laboratory.run_extension(
        "--configuration", laboratory.write_configuration(), reads_errors=False
    )
    eventually(laboratory.has_rules, "the rules are there")
    laboratory.wait_until_proxied()
    return extension


def connect(laboratory, count):
    ways = [laboratory.fetch(THERE4, PEER_PORT).way for _ in range(count)]
    assert ways.count("proxied") == count, set(ways)


LARGEST_LOG = 4096


def with_largest_log(path):
    """The prefix of a command line whose output goes to a file that may not grow further."""
    return ("prlimit", f"--fsize={LARGEST_LOG}", "sh", "-c", 'exec "$@" >"$0" 2>&1', path)


def test_a_log_of_the_largest_size_ends_nothing(laboratory):
    laboratory.start_monitor()
    logs = [laboratory.path(name) for name in ("sidecar.log", "extension.log")]
    sidecar = laboratory.start(
        [*with_largest_log(logs[0]), laboratory.program_path("ostravel-sidecar")]
    )
    extension = laboratory.run_extension(
        "--configuration", laboratory.write_configuration(), prefix=with_largest_log(logs[1])
    )
    laboratory.wait_until_proxied()
    for log in logs:
        eventually(
            lambda log=log: laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
            and os.path.getsize(log) == LARGEST_LOG,
            f"{log} is full",
        )
    connect(laboratory, 20)
    assert sidecar.process.poll() is None
    assert extension.stop() == 0


def test_connections_continue_while_the_log_is_unread(laboratory):
    extension = start_unread(laboratory)
    connect(laboratory, CONNECTIONS)
    assert extension.process.poll() is None

    # No line is lost that the extension had room for, and it ends in order.
    extension.read_errors()
    assert extension.stop() == 0
    lines = [text for _, text in log_lines(extension)]
    # At least one more: the first connections detected that the proxy is there.
    assert lines.count("OstravelProxy: Handshake successful.") > CONNECTIONS
    assert lines[-1] == "OstravelProxy: deinit"


def test_it_ends_in_order_while_the_log_is_unread(laboratory):
    extension = start_unread(laboratory)
    connect(laboratory, CONNECTIONS)
    assert extension.stop() == 0
    assert not laboratory.has_rules()


def test_a_crash_loses_no_line_and_keeps_its_signal(laboratory):
    _, extension = laboratory.start_system()
    connect(laboratory, 100)
    extension.send_signal(signal.SIGABRT)
    assert extension.wait() == -signal.SIGABRT
    lines = [text for _, text in log_lines(extension)]
    assert lines.count("OstravelProxy: Handshake successful.") > 100
