"""A private network with the system in it: applications here, origin servers there.

    here    the extension, the local proxy, the monitor, and applications
    there   origin servers

Laboratories share nothing, so any number of them can run in parallel, and the machine itself is
not touched.
"""

import errno
import json
import os
import pathlib
import re
import select
import shutil
import socket
import struct
import subprocess
import tempfile
import time
from typing import NamedTuple

from Laboratory import ostravel
from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.network import NAME, THERE4, Network, environment, key_of
from Laboratory.private_etc import PrivateEtc
from Laboratory.program import Program, as_user
from events import EventStream
from origins import Origin, tell_peer

# The identifiers of the applications used here: the paths of their files.
CURL = "/usr/bin/curl"
OPENSSL = "/usr/bin/openssl"
PYTHON = os.path.realpath("/usr/bin/python3")

# The port of an origin in every laboratory that reports its peer.
PEER_PORT = 7860


class Fetched(NamedTuple):
    """One request as the application has seen it."""

    status: int  # of the application's exit
    body: str
    own_port: int
    details: str
    repetitions: int = 0  # of the connection's first packet; TCP waits a second for the first one

    @property
    def seen_port(self):
        """The source port of the connection as seen by the origin."""
        return int(self.body.split()[1])

    @property
    def way(self):
        if self.status != 0:
            return f"failed with status {self.status}: {self.details}"
        return "direct" if self.seen_port == self.own_port else "proxied"


def receive_all(connection):
    received = bytearray()
    while part := connection.recv(1 << 18):
        received += part
    return bytes(received)


def receive_exactly(connection, size):
    received = bytearray()
    while len(received) < size:
        part = connection.recv(size - len(received))
        assert part, f"ended after {len(received)} of {size} bytes"
        received += part
    return bytes(received)


def retransmissions(connection):
    """How many segments the connection has sent again: total_retrans of tcp_info, linux/tcp.h."""
    offset = 8 + 23 * 4
    information = connection.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, offset + 4)
    return struct.unpack_from("I", information, offset)[0]


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def eventually(condition, what, seconds=GENEROUS_SECONDS):
    """Polls until condition() returns a value, for conditions that give no signal."""
    deadline = time.monotonic() + seconds
    while not (found := condition()):
        assert time.monotonic() < deadline, f"timed out waiting for: {what}"
        # Yields the processor to what makes it true.
        select.select([], [], [], 0.01)
    return found


class LocalProxy:
    """A local proxy that behaves as a test says; see local_proxy.py."""

    def __init__(self, laboratory, user=0, **behaviour):
        # Copies: programs are distinguished by their files, and everyone may read these.
        script = laboratory.copy_of(_beside("local_proxy.py"), "local_proxy.py")
        self.program = laboratory.start(
            [laboratory.copy_of(PYTHON, "local-proxy"), "-u", script, json.dumps(behaviour)],
            name="local-proxy",
            user=user,
            has_input=True,
        )
        self.wait("listening")

    def _catch_up(self):
        """Returns when everything that it has reported so far has arrived."""
        mark = self.program.output.mark()
        self.program.tell("null")
        self.wait("listening", mark)

    def mark(self):
        self._catch_up()
        return self.program.output.mark()

    def wait(self, what, mark=0):
        line = self.program.output.wait(lambda line: json.loads(line)["what"] == what, mark)
        assert line is not None, f"the local proxy was not \"{what}\""
        return json.loads(line)

    def reports(self, what, mark=0):
        self._catch_up()
        reports = map(json.loads, self.program.output.since(mark))
        return [report for report in reports if report["what"] == what]

    def requests(self, mark=0):
        return [report["request"] for report in self.reports("asked", mark)]

    def behave(self, **behaviour):
        mark = self.program.output.mark()
        self.program.tell(json.dumps(behaviour))
        self.wait("behaving", mark)


def _beside(name):
    return os.path.join(os.path.dirname(os.path.abspath(__file__)), name)


class Laboratory:
    def __init__(self, programs_folder, certificate):
        self.programs_folder = programs_folder
        # Set when a monitor is started.
        self.events = None
        self.certificate = certificate
        self._closing = []
        self._programs = []
        # Short: the path of a socket is limited (unix(7)).
        self.folder = tempfile.mkdtemp(prefix="ostravel-", dir="/tmp")
        self._closing.append(lambda: shutil.rmtree(self.folder))
        try:
            os.chmod(self.folder, 0o755)
            self._etc = PrivateEtc(self.folder)
            os.mkdir(self._etc.replacement("ostravel"))
            network = Network()
            self._closing.append(network.close)
            self.here, self.there = network.here, network.there
            self.serve(PEER_PORT, tell_peer)
        except BaseException:
            self.close()
            raise

    def path(self, name):
        return os.path.join(self.folder, name)

    def close(self):
        for program in reversed(self._programs):
            program.close()
        for close in reversed(self._closing):
            close()

    def logs(self):
        """The output of every program, with titles, for a failed test."""
        for program in self._programs:
            for title, lines in (("output", program.output), ("errors", program.errors)):
                written = lines.since()
                if written:
                    yield f"{title} of {program.name} ({program.pid})", written

    def close_later(self, close):
        self._closing.append(close)

    # Programs

    def start(self, arguments, name=None, namespace=None, **options):
        program = Program(
            arguments,
            name,
            namespace=namespace or self.here,
            environment=environment(self.certificate),
            **options,
        )
        self._programs.append(program)
        return program

    def forget(self, program):
        """Kills a program and discards its output."""
        program.close()
        self._programs.remove(program)

    def copy_of(self, program, name):
        """A copy of a program under another name, which makes it another application."""
        copy = self.path(name)
        if not os.path.exists(copy):
            shutil.copy(program, copy)
        return copy

    def program_path(self, name):
        return os.path.join(self.programs_folder, name)

    @property
    def socket_path(self):
        return self.path("monitoring.sock")

    @property
    def control_path(self):
        return self.path("control.sock")

    def control(self, *arguments):
        """Runs ostravelctl to its end."""
        done = self.run_application(
            self.program_path("ostravelctl"), "--socket", self.control_path, *arguments
        )
        done.stdout, done.stderr = done.stdout.decode(), done.stderr.decode()
        return done

    def asked(self, *arguments):
        """The answer of the extension, from ostravelctl --json."""
        return json.loads(self.control("--json", *arguments).stdout)

    def start_monitor(self, *options):
        monitor = ostravel.start_monitor(
            self.programs_folder, self.socket_path, "--json", *options, start=self.start
        )
        self.events = EventStream(monitor.output)
        return monitor

    def start_sidecar(self, *options, user=0):
        folder = self.programs_folder
        if user != 0:
            # A separate file, because everyone may read it.
            copy = self.copy_of(self.program_path("ostravel-sidecar"), "ostravel-sidecar")
            folder = os.path.dirname(copy)
        return ostravel.start_sidecar(folder, *options, start=self.start, user=user)

    def start_local_proxy(self, user=0, **behaviour):
        return LocalProxy(self, user, **behaviour)

    def start_tinyproxy(self, port=8080, user=0):
        return self._start_configured_proxy(["tinyproxy", "-d", "-c"], f"""
            Port {port}
            Listen 127.0.0.1
            Timeout 60
            MaxClients 200
            LogLevel Connect
        """, port, user)  # fmt: skip

    def start_squid(self):
        return self._start_configured_proxy(["squid", "-N", "-f"], """
            http_port 127.0.0.1:8080
            http_access allow all
            cache_log /dev/null
            access_log none
            pid_filename none
        """)  # fmt: skip

    def start_privoxy(self):
        return self._start_configured_proxy(["privoxy", "--no-daemon"], """
            listen-address 127.0.0.1:8080
        """)  # fmt: skip

    def start_apache2(self):
        modules = "".join(
            f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so\n"
            for name in ("mpm_event", "authz_core", "proxy", "proxy_connect")
        )
        return self._start_configured_proxy(["apache2", "-X", "-f"], f"""
            {modules}
            ServerName localhost
            Listen 127.0.0.1:8080
            PidFile {self.path("apache2.pid")}
            ErrorLog /dev/null
            ProxyRequests On
            AllowCONNECT 1-65535
        """)  # fmt: skip

    def _start_configured_proxy(self, command, configuration, port=8080, user=0):
        path = pathlib.Path(self.path(f"{command[0]}.conf"))
        # Some take a line that begins with blanks for the rest of the one before.
        path.write_text("\n".join(line.strip() for line in configuration.splitlines()) + "\n")
        proxy = self.start([*command, str(path)], user=user)
        self.wait_until_listening(self.here, port)
        return proxy

    def wait_until_listening(self, namespace, port):
        """For a program that does not report it."""
        eventually(
            lambda: namespace.run("ss", "-Hltn", f"sport = :{port}"), f"port {port} is listened on"
        )

    def run_nginx(self, name, servers, namespace, port):
        """Starts nginx with these servers; returns when one listens on the port."""
        configuration = self.path(f"{name}.conf")
        temporary = "\n".join(
            f"{kind}_temp_path {self.path(f'{name}-{kind}')};"
            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        )
        pathlib.Path(configuration).write_text(f"""
            daemon off;
            # One process, whose end is the end of it.
            master_process off;
            pid {self.path(f"{name}.pid")};
            error_log stderr notice;
            events {{ worker_connections 4096; }}
            http {{
              access_log off;
              client_max_body_size 0;
              {temporary}
              {servers}
            }}
        """)
        nginx = self.start(["nginx", "-c", configuration], namespace=namespace)
        self.wait_until_listening(namespace, port)
        return nginx

    def start_nginx(self):
        """Port 80; port 443 with TLS and HTTP/2. Behind it, and on port 8000, the pattern."""
        self.start_pattern_origin()
        servers = f"""
            server {{
              listen 80;
              listen [::]:80;
              listen 443 ssl http2;
              listen [::]:443 ssl http2;
              ssl_certificate {self.certificate};
              ssl_certificate_key {key_of(self.certificate)};
              location / {{ return 200 "$remote_addr $remote_port $server_protocol\\n"; }}
              location /pattern {{
                rewrite ^/pattern(/.*)$ $1 break;
                proxy_pass http://127.0.0.1:8000;
                proxy_http_version 1.1;
                proxy_buffering off;
                proxy_request_buffering off;
              }}
            }}
        """
        return self.run_nginx("nginx", servers, self.there, 443)

    def start_pattern_origin(self, port=8000):
        origin = self.start(
            [PYTHON, "-u", _beside("pattern_origin.py"), str(port)],
            name="pattern-origin",
            namespace=self.there,
        )
        origin.expect(origin.output, "listening")
        return origin

    def register(self, registrations, extension=None):
        """The administrator's registrations: {path: identifier}, or verbatim text.

        Applies to extensions that are started later, or to a running one after SIGHUP.
        """
        folder = self._etc.replacement("ostravel", "applications.d")
        if extension is not None:
            folder = f"/proc/{extension.pid}/root/etc/ostravel/applications.d"
        text = registrations if isinstance(registrations, str) else json.dumps(registrations)
        os.makedirs(folder, exist_ok=True)
        pathlib.Path(folder, "test.json").write_text(text)

    def replace_in_etc(self, name, text):
        """For extensions, and for applications that are run with_etc."""
        pathlib.Path(self._etc.replacement(name)).write_text(text)

    def with_etc(self, *arguments):
        """A command that runs arguments with the files of replace_in_etc."""
        return ["unshare", "--mount", "--propagation", "private", *self._etc.command(*arguments)]

    def write_configuration(self, text=None, name="provider-configuration.json"):
        """A provider configuration, with the monitoring socket if not said otherwise; its path."""
        path = self.path(name)
        self._write_configuration(path, text)
        return path

    def _write_configuration(self, path, text):
        if text is None:
            text = json.dumps({"monitoringSocketPath": self.socket_path})
        pathlib.Path(path).write_text(text)

    def write_default_configuration(self, text=None):
        """The file that is used when none is named."""
        self._write_configuration(
            self._etc.replacement("ostravel", "provider-configuration.json"), text
        )

    def run_extension(self, *arguments, prefix=(), **options):
        """Starts the extension without waiting for anything."""
        if "--control" not in arguments:
            arguments = (*arguments, "--control", self.control_path)
        return self.start(
            # The tests may run in a service or a container; their applications do not belong to it.
            ["unshare", "--cgroup",
             *self.with_etc(*prefix, self.program_path("ostravel-extension"), *arguments)],
            name="ostravel-extension",
            **options,
        )  # fmt: skip

    def start_extension(self, *arguments, prefix=()):
        """Starts the extension with the monitoring socket; waits until its rules are installed."""
        extension = self.run_extension(
            "--configuration", self.write_configuration(), *arguments, prefix=prefix
        )
        extension.expect(extension.errors, ostravel.RULES_ARE_SET)
        return extension

    def start_system(self, start_proxy=None, **options):
        """Monitor, local proxy and extension; returns when flows are proxied."""
        self.start_monitor()
        proxy = (start_proxy or self.start_sidecar)()
        extension = self.start_extension(**options)
        self.wait_until_proxied()
        return proxy, extension

    def wait_until_proxied(self):
        """Waits until the local proxy was probed and its owner is known.

        On a busy machine the latter may take a few flows, which are left alone in the meantime.
        """
        mark = self.events.mark()
        eventually(lambda: self.fetch(THERE4, PEER_PORT).way == "proxied", "flows are proxied")
        # Its last event is the last one overall.
        self.events.flow_to(remote(THERE4, PEER_PORT), mark)

    def has_rules(self):
        return "table inet ostravel" in self.here.run("nft", "list", "tables").splitlines()

    # Origins

    def serve(self, port, serve, namespace=None, address=None):
        origin = Origin(namespace or self.there, port, serve, address)
        self._closing.append(origin.close)
        return origin

    # Applications

    def socket(self, host, kind=socket.SOCK_STREAM):
        with self.here:
            return socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET, kind)

    def connect(self, host, port, seconds=GENEROUS_SECONDS):
        """This process as an application."""
        connection = self.socket(host)
        try:
            connection.settimeout(seconds)
            connection.connect((host, port))
        except BaseException:
            connection.close()
            raise
        return connection

    def fetch(self, host, port, seconds=GENEROUS_SECONDS):
        """This process as an application that asks for its apparent address."""
        try:
            with self.connect(host, port, seconds) as connection:
                own_port = connection.getsockname()[1]
                repetitions = retransmissions(connection)
                connection.sendall(b"GET / HTTP/1.0\r\n\r\n")
                body = receive_all(connection).partition(b"\r\n\r\n")[2]
                return Fetched(0 if body else 1, body.decode(), own_port, "", repetitions)
        except OSError as error:
            return Fetched(error.errno or errno.ETIMEDOUT, "", 0, str(error))

    def run_application(self, *arguments, given=None, seconds=60):
        with self.here:
            return subprocess.run(
                arguments,
                input=given,
                capture_output=True,
                timeout=seconds,
                check=False,
                env=environment(self.certificate),
            )

    def curl(self, url, *options, program=CURL, user=0):
        return self.run_fetcher(
            *as_user(user), program, "-q", "-sS", "--max-time", "30",
            "--resolve", f"{NAME}:80:{THERE4}", "--resolve", f"{NAME}:443:{THERE4}",
            "-w", "\n%{local_port}", *options, url,
        )  # fmt: skip

    def run_fetcher(self, *arguments):
        """A program that writes what an origin answers, and its own port on the last line."""
        done = self.run_application(*arguments)
        body, _, own_port = done.stdout.decode().rpartition("\n")
        return Fetched(done.returncode, body, int(own_port or 0), done.stderr.decode().strip())


def host_text(address):
    return f"[{address}]" if ":" in address else address


def remote(address, port):
    """The destination as in requests and events."""
    return f"{host_text(address)}:{port}"


def log_lines(program):
    """A program's log lines as pairs of level and text."""
    found = []
    for line in program.errors.since():
        match = re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (.{7}) (.*)", line)
        assert match, f"not a line of the log: {line}"
        found.append((match.group(1).strip(), match.group(2)))
    return found
