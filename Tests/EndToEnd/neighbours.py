"""Applications of several users in one laboratory: some measure, others attack."""

import json
import os
import socket

from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.network import THERE4
from Laboratory.ostravel import RULES_ARE_SET
from laboratory import PEER_PORT, PYTHON, eventually, receive_all

# Far longer than any number of connections requested here takes.
END_SECONDS = 600

# Ordinary users, who need not exist in the user database.
VICTIM, ATTACKER = 4001, 4002

# The ports of this module's origins, on which flows are offered.
MEASURED_PORT, STREAM_PORT = 80, 8000

# Set aside for documentation and for measurements (RFC 5737, RFC 2544).
DEAD_HOSTS = "203.0.113."
MANY_HOSTS = "198.18.0.0/15"

_FOLDER = os.path.dirname(os.path.abspath(__file__))


class Connections:
    """The outcome of an application's connections between two reports; see connector.py."""

    def __init__(self, told):
        self._told = told
        self.count = told["connections"]
        self.pending = told["pending"]
        self.proxied = told["proxied"]
        self.direct = told["direct"]
        # Established, and ended before the origin's first bytes came.
        self.reset = told["reset"]
        self.failed = sum(told["failed"].values())
        # Took more than a second to be established.
        self.slow = told["slow"]
        self.p50, self.p99, self.slowest = told["p50"], told["p99"], told["slowest"]

    @property
    def proxied_share(self):
        return self.proxied / max(self.proxied + self.direct, 1)

    def __repr__(self):
        return json.dumps(self._told)


class Application:
    """An application of a user that makes connections at a steady rate, from its creation on."""

    def __init__(self, laboratory, rate, *options, user=VICTIM, host=THERE4, port=MEASURED_PORT):
        self._laboratory = laboratory
        self.program = start_as(
            laboratory, user, "connector.py", host, port, "--rate", rate, *options, has_input=True
        )
        self.program.expect(self.program.output, "running")

    def _tell(self, word, seconds):
        output = self.program.output
        mark = output.mark()
        self.program.tell(word)
        line = output.wait(lambda line: True, mark, seconds)
        assert line is not None, f"the connections were not reported: {self.program.errors.since()}"
        return Connections(json.loads(line))

    def report(self):
        """The connections that have ended since the last report."""
        return self._tell("report", GENEROUS_SECONDS)

    def end(self):
        """Waits for pending connections; all that have ended since the last report."""
        ended = self._tell("end", END_SECONDS)
        self._laboratory.forget(self.program)
        return ended


def start_as(laboratory, user, script, *arguments, **options):
    """Runs one of our scripts as another user, who may not be able to read their folder."""
    copy = laboratory.copy_of(os.path.join(_FOLDER, script), os.path.basename(script))
    os.chmod(copy, 0o644)
    return laboratory.start(
        [PYTHON, "-I", "-S", "-u", copy, *map(str, arguments)],
        name=os.path.basename(script),
        user=user,
        **options,
    )


def start_origin(laboratory, mode, port):
    origin = laboratory.start(
        [PYTHON, "-I", "-S", "-u", os.path.join(_FOLDER, "plain_origin.py"), mode, str(port)],
        name=f"{mode}-origin",
        namespace=laboratory.there,
    )
    origin.expect(origin.output, "listening")
    return origin


def prepare(laboratory):
    """Origins and addresses for everything in this module."""
    for namespace in (laboratory.here, laboratory.there):
        with namespace:
            # With thousands of closed connections we would measure the search for a free port.
            _write("/proc/sys/net/ipv4/tcp_max_tw_buckets", "512")
            _write("/proc/sys/net/ipv4/ip_local_port_range", "10000 65000")
            # Thousands of stalled connections must not use up the machine's memory.
            _write("/proc/sys/net/ipv4/tcp_rmem", "4096 16384 262144")
            _write("/proc/sys/net/ipv4/tcp_wmem", "4096 16384 262144")
    laboratory.here.run("ip", "route", "add", f"{DEAD_HOSTS}0/24", "via", THERE4)
    laboratory.there.run("ip", "route", "add", "blackhole", f"{DEAD_HOSTS}0/24")
    laboratory.here.run("ip", "route", "add", MANY_HOSTS, "via", THERE4)
    laboratory.there.run("ip", "route", "add", "local", MANY_HOSTS, "dev", "lo")
    start_origin(laboratory, "peer", MEASURED_PORT)


def _write(path, text):
    with open(path, "w") as setting:
        setting.write(text)


def start_quiet_system(laboratory, start_proxy=None, **options):
    """Local proxy and extension without a monitor; returns when flows are proxied."""
    proxy = (start_proxy or laboratory.start_sidecar)()
    extension = start_quiet_extension(laboratory, **options)
    wait_until_proxied(laboratory)
    return proxy, extension


def start_quiet_extension(laboratory, **options):
    configuration = laboratory.write_configuration("{}", "quiet.json")
    extension = laboratory.run_extension("--configuration", configuration, **options)
    extension.expect(extension.errors, RULES_ARE_SET)
    return extension


def ask_peer(host, port):
    """The address that an origin sees, asked from the namespace in which the thread is."""
    with socket.create_connection((host, port), timeout=GENEROUS_SECONDS) as connection:
        connection.sendall(b"GET / HTTP/1.0\r\n\r\n")
        return receive_all(connection).partition(b"\r\n\r\n")[2].decode().split()[0]


def wait_until_proxied(laboratory):
    eventually(lambda: laboratory.fetch(THERE4, PEER_PORT).way == "proxied", "flows are proxied")


# Attacks. Each returns when the attack is under way. They also run without an extension.


def _attack(laboratory, script, *arguments):
    attacker = start_as(laboratory, ATTACKER, f"attackers/{script}", *arguments)
    attacker.expect(attacker.output, "attacking")
    return attacker


def dial_dead_hosts(laboratory, extension, count=100):
    return _attack(laboratory, "dial_dead_hosts.py", DEAD_HOSTS, MEASURED_PORT, "--count", count)


def flood_hosts(laboratory, extension, rate=1500):
    return _attack(laboratory, "flood_hosts.py", MEASURED_PORT, "--rate", rate)


def stall_readers(laboratory, extension, count=5000):
    start_origin(laboratory, "stream", STREAM_PORT)
    attacker = _attack(laboratory, "stall_readers.py", THERE4, STREAM_PORT, count)
    line = attacker.output.wait(lambda line: line.startswith("holding"), seconds=120)
    assert line is not None, "the readers have not opened their connections"
    return attacker


def run_hanging_programs(laboratory, extension, rate=50):
    folder = laboratory.path("hanging")
    os.makedirs(folder, exist_ok=True)
    script = laboratory.copy_of(
        os.path.join(_FOLDER, "attackers/hanging_files.py"), "hanging_files.py"
    )
    if extension is None:
        view = ["unshare", "--mount", "--propagation", "private"]
    else:
        # Mounted where the extension sees it, like any of the machine's file systems.
        view = ["nsenter", f"--mount=/proc/{extension.pid}/ns/mnt"]
    attacker = laboratory.start(
        [*view, PYTHON, "-I", "-S", "-u", script, folder, str(ATTACKER), THERE4, str(MEASURED_PORT),
         "--rate", str(rate)],
        name="hanging_files.py",
    )  # fmt: skip
    attacker.expect(attacker.output, "attacking")
    return attacker


def misuse_sockets(laboratory, mode):
    """mode is that of attackers/misuse_sockets.py."""
    return _attack(laboratory, "misuse_sockets.py", mode, THERE4, MEASURED_PORT)


ATTACKS = {
    "dials 100 dead hosts": dial_dead_hosts,
    "floods 1,500 hosts a second": flood_hosts,
    "holds 5,000 stalled readers": stall_readers,
    "runs programs from a file system that hangs": run_hanging_programs,
}
