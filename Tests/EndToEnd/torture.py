"""What is done to the system while applications connect, and what happens to the connections.

The tests run each of these for a few seconds, Benchmarks/torture for as long as requested.
"""

import collections
import contextlib
import json
import os
import random
import select
import signal
import time
from typing import NamedTuple

import conntrack
import neighbours
from laboratory import PYTHON, eventually
from neighbours import Application, Connections

# New connections per second.
RATE = 300
# Descriptors that may be open for other work than tunnels.
FEW_DESCRIPTORS = 8
# A transfer that is slower has stalled.
SECONDS_PER_GIGABYTE = 30

_FOLDER = os.path.dirname(os.path.abspath(__file__))


def pause(seconds):
    """Lets the applications work for a while, without waiting for an event."""
    select.select([], [], [], seconds)


@contextlib.contextmanager
def application(laboratory, *arguments, **options):
    """An application that is guaranteed to have ended."""
    made = Application(laboratory, *arguments, **options)
    try:
        yield made
    finally:
        made.program.close()


def kill_extension(laboratory, extension, count, seed=None):
    """Kills the extension at random moments and starts it again; it is running afterwards."""
    moments = random.Random(seed)
    with application(laboratory, RATE) as load:
        for _ in range(count):
            pause(moments.uniform(0, 0.6))
            laboratory.forget(extension)
            extension = neighbours.start_quiet_extension(laboratory)
        neighbours.wait_until_proxied(laboratory)
        return load.end()


def kill_proxy(laboratory, proxy, count, seed=None):
    """Kills the local proxy at random moments and starts it again."""
    moments = random.Random(seed)
    with application(laboratory, RATE) as load:
        for _ in range(count):
            pause(moments.uniform(0, 1))
            laboratory.forget(proxy)
            # Sometimes sooner than the next probe, sometimes later.
            pause(moments.uniform(0, 1))
            proxy = laboratory.start_sidecar()
            neighbours.wait_until_proxied(laboratory)
        return load.end()


def hang(laboratory, extension, begin_hang, seconds=2):
    """The extension hangs until its guardian kills it."""
    with application(laboratory, RATE) as load:
        pause(seconds)
        begin_hang(extension)
        extension.wait()
        pause(seconds)
        return load.end()


class Attacked(NamedTuple):
    """What one user has noticed of another's attack."""

    idle: Connections
    # While the attack was getting under way.
    beginning: Connections
    during: Connections


def attack(laboratory, start_attack, seconds, idle_seconds=1, rate=100):
    """Another user attacks; start_attack() returns when that is under way.

    The connections that are measured follow one another, so that they do not compete.
    """
    with application(laboratory, rate, "--at-once", 1) as victim:
        pause(idle_seconds)
        idle = victim.report()
        attacker = start_attack()
        beginning = victim.report()
        pause(seconds)
        during = victim.report()
        attacker.close()
        return Attacked(idle, beginning, during)


def start_with_silent_proxy(laboratory, **options):
    """A proxy that has answered so far still accepts connections but no longer answers."""
    proxy, extension = neighbours.start_quiet_system(
        laboratory, laboratory.start_local_proxy, **options
    )
    proxy.behave(answer="", then="hold")
    return extension


def connect_to_silent_proxy(laboratory, count, rate, *options):
    start_with_silent_proxy(laboratory)
    with application(laboratory, rate, "--count", count, *options) as load:
        return load.end()


class UnreadPipe:
    """A full, unread pipe."""

    def __init__(self, path):
        self.path = path
        os.mkfifo(path)
        self._descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK)
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(self._descriptor, bytes(4096))
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(self._descriptor, b"-")

    def close(self):
        os.close(self._descriptor)
        os.unlink(self.path)

    @property
    def prefix(self):
        """Prefix of a command whose output goes into the pipe."""
        return ("sh", "-c", 'exec "$@" >"$0" 2>&1', self.path)


def resident_bytes(program):
    with open(f"/proc/{program.pid}/statm") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


class Unread(NamedTuple):
    """Two halves of the time, and the increase of the programs' memory in the second."""

    first: Connections
    second: Connections
    extension_growth: int  # bytes
    proxy_growth: int  # bytes


def connect_unread(laboratory, seconds, rate):
    """Nobody reads what extension and proxy write, and the monitor is stopped."""
    pipe = UnreadPipe(laboratory.path("unread"))
    try:
        monitor = laboratory.start_monitor()
        monitor.send_signal(signal.SIGSTOP)
        proxy = laboratory.start([*pipe.prefix, laboratory.program_path("ostravel-sidecar")])
        extension = laboratory.run_extension(
            "--configuration", laboratory.write_configuration(), prefix=pipe.prefix
        )
        neighbours.wait_until_proxied(laboratory)
        with application(laboratory, rate) as load:
            pause(seconds / 2)
            first = load.report()
            before = [resident_bytes(program) for program in (extension, proxy)]
            pause(seconds / 2)
            after = [resident_bytes(program) for program in (extension, proxy)]
            growth = [size - earlier for size, earlier in zip(after, before)]
            return Unread(first, load.end(), *growth)
    finally:
        pipe.close()


# Rules of others

# The network of the containers.
CONTAINER4 = "172.17.0.2"

CONTAINER_RULES = f"""
table ip nat {{
  chain DOCKED {{
    tcp dport 5000 dnat to {CONTAINER4}:5000
  }}
  chain PREROUTING {{
    type nat hook prerouting priority dstnat; policy accept;
    fib daddr type local jump DOCKED
  }}
  chain OUTPUT {{
    type nat hook output priority -100; policy accept;
    ip daddr != 127.0.0.0/8 fib daddr type local jump DOCKED
  }}
  chain POSTROUTING {{
    type nat hook postrouting priority srcnat; policy accept;
    ip saddr 172.17.0.0/16 oifname != "docked" masquerade
  }}
}}
table ip filter {{
  chain FORWARD {{
    type filter hook forward priority filter; policy drop;
    ct state established,related accept
    iifname "docked" accept
    oifname "docked" tcp dport 5000 accept
  }}
}}
"""

DEFAULT_DROP = """
table inet firewall {
  chain input {
    type filter hook input priority filter; policy drop;
    ct state established,related accept
    iifname "lo" accept
    meta l4proto icmpv6 accept
  }
  chain output {
    type filter hook output priority filter; policy drop;
    ct state established,related accept
    oifname "lo" accept
    meta l4proto icmpv6 accept
    tcp dport { 53, 80, 443, 5000, 7860 } accept
    udp dport 53 accept
  }
}
"""

DEFAULT_DROP_INPUT = DEFAULT_DROP.replace(
    "output priority filter; policy drop;", "output priority filter; policy accept;"
)


class Foreign(NamedTuple):
    """Rules of other programs: how they are added and removed."""

    begin: object
    end: object
    # Whether flows are still proxied while they are there.
    is_proxied: bool


def _load(rules):
    return lambda laboratory: laboratory.here.run("nft", "-f", "-", given=rules)


def _delete(*tables):
    def run(laboratory):
        for table in tables:
            laboratory.here.run("nft", "delete", "table", *table.split())

    return run


def _flush_repeatedly(flush):
    def run(laboratory):
        for _ in range(10):
            flush(laboratory)
            pause(0.05)

    return run


def _nothing(_):
    pass


FOREIGN_RULES = {
    "nft flush ruleset": Foreign(
        _flush_repeatedly(lambda laboratory: laboratory.here.run("nft", "flush", "ruleset")),
        _nothing,
        is_proxied=True,
    ),
    "conntrack flush": Foreign(
        _flush_repeatedly(lambda laboratory: conntrack.flush(laboratory.here)),
        _nothing,
        is_proxied=True,
    ),
    "container-style NAT": Foreign(
        _load(CONTAINER_RULES), _delete("ip nat", "ip filter"), is_proxied=True
    ),
    "default-drop input": Foreign(
        _load(DEFAULT_DROP_INPUT), _delete("inet firewall"), is_proxied=True
    ),
    "default-drop input and output": Foreign(
        _load(DEFAULT_DROP), _delete("inet firewall"), is_proxied=False
    ),
}


class Ruled(NamedTuple):
    before: Connections
    during: Connections
    after: Connections


def rule(laboratory, foreign, seconds, rate=RATE):
    """Foreign rules come and go while applications make connections."""
    with application(laboratory, rate) as load:
        pause(seconds)
        before = load.report()
        foreign.begin(laboratory)
        pause(seconds)
        during = load.report()
        foreign.end(laboratory)
        pause(seconds)
        return Ruled(before, during, load.end())


# Long runs


class Held(NamedTuple):
    """Thousands of tunnels over a long time: a report of holder.py, and the extension's growth."""

    held: int
    exchanged: int
    failed: dict
    # From the moment when all tunnels were open, in bytes; the second half counts.
    growth: int
    descriptors_before: int
    descriptors_after: int
    bytes_per_tunnel: float


def descriptors(program):
    return len(os.listdir(f"/proc/{program.pid}/fd"))


def hold_tunnels(laboratory, count, seconds, churn, seed=0):
    """Keeps tunnels open; churn of them a minute are used and replaced."""
    origin = neighbours.start_origin(laboratory, "echo", neighbours.STREAM_PORT)
    _, extension = neighbours.start_quiet_system(laboratory)
    # Grows to its usual size.
    neighbours.wait_until_proxied(laboratory)
    empty = resident_bytes(extension)
    before = descriptors(extension)
    holder = neighbours.start_as(
        laboratory, neighbours.VICTIM, "holder.py", neighbours.THERE4, neighbours.STREAM_PORT,
        "--count", count, "--churn", churn, "--seed", seed, has_input=True,
    )  # fmt: skip
    full = holder.output.wait(lambda line: line == "full", 0, neighbours.END_SECONDS)
    assert full is not None, f"the tunnels were not opened: {holder.errors.since()}"
    opened = resident_bytes(extension)
    pause(seconds / 2)
    middle = resident_bytes(extension)
    pause(seconds / 2)
    growth = resident_bytes(extension) - middle
    mark = holder.output.mark()
    holder.tell("end")
    line = holder.output.wait(lambda line: line.startswith("{"), mark, neighbours.END_SECONDS)
    told = json.loads(line)
    laboratory.forget(holder)
    laboratory.forget(origin)
    eventually(lambda: descriptors(extension) <= before + FEW_DESCRIPTORS, "descriptors are closed")
    return Held(
        **told, growth=growth, descriptors_before=before,
        descriptors_after=descriptors(extension), bytes_per_tunnel=(opened - empty) / count,
    )  # fmt: skip


class Transferred(NamedTuple):
    exact_bytes: int
    wrong: list
    connections: int
    seconds: float


def transfer(laboratory, start_proxy, gigabytes):
    """Downloads and uploads in which every byte is checked; all of them are proxied."""
    laboratory.start_pattern_origin()
    laboratory.start_system(start_proxy)
    mark = laboratory.events.mark()
    begin = time.monotonic()
    client = laboratory.start(
        [PYTHON, "-u", os.path.join(_FOLDER, "transfer.py"), neighbours.THERE4, "8000",
         "--gigabytes", str(gigabytes)],
        name="transfer",
    )  # fmt: skip
    most = neighbours.END_SECONDS + gigabytes * SECONDS_PER_GIGABYTE
    line = client.output.wait(lambda line: line.startswith("{"), 0, most)
    assert line is not None, f"the transfers have not ended: {client.errors.since()}"
    told = json.loads(line)
    seconds = time.monotonic() - begin
    if not told["wrong"]:
        laboratory.events.wait_for_count("connect_handshake_succeeded", told["connections"], mark)
    return Transferred(**told, seconds=seconds)


def disturb(laboratory, seconds, rate=RATE, seed=None):
    """Kills, freezes, deaths of the proxy and rules of others, at random, for long."""
    moments = random.Random(seed)
    proxy, extension = neighbours.start_quiet_system(laboratory)
    done = collections.Counter()
    end = time.monotonic() + seconds

    def restart_extension():
        nonlocal extension
        laboratory.forget(extension)
        extension = neighbours.start_quiet_extension(laboratory)

    def kill():
        restart_extension()

    def freeze():
        extension.send_signal(signal.SIGSTOP)
        extension.wait()
        restart_extension()

    def end_proxy():
        nonlocal proxy
        laboratory.forget(proxy)
        pause(moments.uniform(0, 3))
        proxy = laboratory.start_sidecar()

    def freeze_proxy():
        proxy.send_signal(signal.SIGSTOP)
        pause(moments.uniform(0, 3))
        proxy.send_signal(signal.SIGCONT)

    def change_rules():
        foreign = moments.choice(list(FOREIGN_RULES.values()))
        foreign.begin(laboratory)
        pause(moments.uniform(0, 3))
        foreign.end(laboratory)

    with application(laboratory, rate) as load:
        while time.monotonic() < end:
            pause(moments.uniform(0, 5))
            disturbance = moments.choice((kill, freeze, end_proxy, freeze_proxy, change_rules))
            disturbance()
            done[disturbance.__name__] += 1
        neighbours.wait_until_proxied(laboratory)
        connections = load.end()
    laboratory.forget(extension)
    return connections, done, laboratory.here.run("nft", "list", "tables").splitlines()
