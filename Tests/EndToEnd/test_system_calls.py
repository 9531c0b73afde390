"""How many system calls the extension makes for one connection, from its SYN to its end.

The kernel does nearly all the work of a connection, so this is the first cost that a change
increases.
"""

import re
import signal

from Laboratory import ostravel
from Laboratory.network import THERE4
from laboratory import PEER_PORT, eventually

CONNECTIONS = 300
# One after the other, the costliest way: nothing is shared between connections but lines of the
# log. Includes the heartbeat, the probe and the log for as long as it takes, and one call in search
# of the name of a flow that has none: about 24, and up to 31 while twelve others want the two cores.
MOST_CALLS = 32


def count_calls(laboratory, process, work):
    """The system calls that a process makes while work runs, by name."""
    counts = laboratory.path("counts")
    strace = laboratory.start(["strace", "-f", "-c", "-o", counts, "-p", str(process.pid)])
    strace.expect(strace.errors, "attached")
    work()
    strace.send_signal(signal.SIGINT)
    strace.wait()
    # Share of the time, seconds, microseconds of a call, calls, perhaps errors, name.
    line = re.compile(r" *[\d.]+ +[\d.]+ +\d+ +(\d+) +(?:\d+ +)?(\w+)$")
    with open(counts, encoding="ascii") as table:
        found = filter(None, map(line.match, table))
        return {one[2]: int(one[1]) for one in found if one[2] != "total"}


def test_a_connection_costs_few_system_calls(laboratory):
    laboratory.start_sidecar()
    extension = laboratory.run_extension(
        "--configuration", laboratory.write_configuration("{}")
    )
    extension.expect(extension.errors, ostravel.RULES_ARE_SET)
    eventually(lambda: laboratory.fetch(THERE4, PEER_PORT).way == "proxied", "it is proxied")
    ways = []

    def connect():
        ways.extend(laboratory.fetch(THERE4, PEER_PORT).way for _ in range(CONNECTIONS))

    calls = count_calls(laboratory, extension, connect)
    assert ways == ["proxied"] * CONNECTIONS
    each = {name: round(count / CONNECTIONS, 2) for name, count in calls.items()}
    assert sum(calls.values()) / CONNECTIONS <= MOST_CALLS, each
