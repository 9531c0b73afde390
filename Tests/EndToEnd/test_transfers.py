"""Exact bytes, both ways, through real applications."""

import asyncio
import errno
import hashlib
import re
import socket
import subprocess
import threading

import pytest

from Laboratory.network import HERE4, NAME, THERE4, THERE6, environment
import pattern
from events import (
    CONNECTION_RESET,
    handshake_started,
    handshake_succeeded,
    shapes,
    tunnel_closed,
)
from laboratory import (
    CURL,
    OPENSSL,
    PEER_PORT,
    PYTHON,
    host_text,
    receive_all,
    receive_exactly,
    remote,
    reset,
)

# An application that closes a connection with bytes left unread resets it. curl and openssl do so
# when the server has had the last word, in HTTP/2 or with the end of TLS.
ENDS_WITH_UNREAD_BYTES = ("eof", CONNECTION_RESET)

IPV4_AND_IPV6 = pytest.mark.parametrize("host", [THERE4, THERE6])
TRANSFER_SECONDS = 120


def check_proxied(laboratory, target, application, count=1, ends=("eof",)):
    """count flows to target were carried, and ended in one of these ways."""
    for flow in laboratory.events.flows_to(target, count):
        *beginning, end = shapes(flow)
        assert beginning == [
            handshake_started(application, target),
            handshake_succeeded(application),
        ]
        assert end in [tunnel_closed(application, detail) for detail in ends]


def start_curl(laboratory, *arguments, **streams):
    with laboratory.here:
        return subprocess.Popen(
            [CURL, "-q", "-sS", "--max-time", str(TRANSFER_SECONDS), *arguments],
            env=environment(laboratory.certificate),
            **streams,
        )


@pytest.mark.xdist_group("processors")
@IPV4_AND_IPV6
def test_downloading_1_gib_is_exact(laboratory, host):
    laboratory.start_pattern_origin()
    laboratory.start_system()
    curl = start_curl(
        laboratory, f"http://{host_text(host)}:8000/17/{pattern.GIB}", stdout=subprocess.PIPE
    )
    checker = pattern.Checker(17)
    with curl.stdout:
        checker.feed_from(curl.stdout)
    assert curl.wait() == 0
    assert checker.verdict() == f"{pattern.GIB} exact bytes"
    check_proxied(laboratory, remote(host, 8000), CURL)


@pytest.mark.xdist_group("processors")
@IPV4_AND_IPV6
def test_uploading_1_gib_is_exact(laboratory, host):
    laboratory.start_pattern_origin()
    laboratory.start_system()
    curl = start_curl(
        laboratory, "-H", "Expect:", "-T", "-", f"http://{host_text(host)}:8000/23/0",
        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
    )  # fmt: skip
    with curl.stdin:
        for piece in pattern.pieces(23, pattern.GIB):
            curl.stdin.write(piece)
    answer = curl.stdout.read().decode()
    assert curl.wait() == 0
    assert answer == f"{pattern.GIB} exact bytes\n"
    check_proxied(laboratory, remote(host, 8000), CURL)


class Transfer:
    """One of many at the same time: a download or an upload of its own part of the pattern."""

    SIZE = 1 << 20

    def __init__(self, number):
        self.seed = number * 7919
        self.is_upload = number % 2 == 0

    async def connect(self, laboratory, host, gate):
        connection = laboratory.socket(host)
        connection.setblocking(False)
        async with gate:
            await asyncio.get_running_loop().sock_connect(connection, (host, 8000))
        self.reader, self.writer = await asyncio.open_connection(sock=connection)

    async def run(self):
        if self.is_upload:
            header = f"PUT /{self.seed}/0 HTTP/1.1\r\nContent-Length: {self.SIZE}\r\n"
        else:
            header = f"GET /{self.seed}/{self.SIZE} HTTP/1.1\r\n"
        self.writer.write(f"{header}Host: x\r\nConnection: close\r\n\r\n".encode())
        if self.is_upload:
            for piece in pattern.pieces(self.seed, self.SIZE):
                self.writer.write(piece)
                await self.writer.drain()
        answer = await self.reader.readuntil(b"\r\n\r\n")
        assert answer.startswith(b"HTTP/1.1 200"), answer
        body = await self.reader.read(-1)
        self.writer.close()
        if self.is_upload:
            return body.decode().strip()
        checker = pattern.Checker(self.seed)
        checker.feed(memoryview(body))
        return checker.verdict()


@pytest.mark.xdist_group("processors")
@IPV4_AND_IPV6
def test_300_simultaneous_transfers_are_exact(laboratory, host):
    count = 300
    laboratory.start_pattern_origin()
    laboratory.start_system()

    async def run():
        transfers = [Transfer(number) for number in range(count)]
        # More simultaneous handshakes of one user than this go direct.
        gate = asyncio.Semaphore(20)
        await asyncio.gather(*(each.connect(laboratory, host, gate) for each in transfers))
        # All connections are established before the first byte is sent.
        return await asyncio.gather(*(each.run() for each in transfers))

    verdicts = asyncio.run(asyncio.wait_for(run(), TRANSFER_SECONDS))
    assert verdicts == [f"{Transfer.SIZE} exact bytes"] * count
    check_proxied(laboratory, remote(host, 8000), PYTHON, count)


@IPV4_AND_IPV6
@pytest.mark.parametrize(
    "scheme, option, version",
    [("http", "--http1.1", "1.1"), ("https", "--http1.1", "1.1"), ("https", "--http2", "2.0")],
)
def test_curl_speaks_http_through_the_proxy(laboratory, host, scheme, option, version):
    laboratory.start_nginx()
    laboratory.start_system()
    url = f"{scheme}://{host_text(host)}"
    fetched = laboratory.curl(f"{url}/", option)
    assert fetched.way == "proxied"
    assert fetched.body.split()[2] == f"HTTP/{version}"

    size = 32 << 20
    download = laboratory.run_application(
        CURL, "-q", "-sS", option, f"{url}/pattern/5/{size}", seconds=TRANSFER_SECONDS
    )
    checker = pattern.Checker(5)
    checker.feed(memoryview(download.stdout))
    assert checker.verdict() == f"{size} exact bytes"

    upload = laboratory.run_application(
        CURL, "-q", "-sS", option, "-T", "-", f"{url}/pattern/9/0",
        given=b"".join(pattern.pieces(9, size)), seconds=TRANSFER_SECONDS,
    )  # fmt: skip
    assert upload.stdout.decode() == f"{size} exact bytes\n"
    port = 443 if scheme == "https" else 80
    ends = ENDS_WITH_UNREAD_BYTES if version == "2.0" else ("eof",)
    check_proxied(laboratory, remote(host, port), CURL, count=3, ends=ends)


def test_curl_multiplexes_http2_in_one_tunnel(laboratory):
    laboratory.start_nginx()
    laboratory.start_system()
    size = 1 << 20
    count = 20
    done = laboratory.run_application(
        CURL, "-q", "-sS", "--http2", "--parallel", "--resolve", f"{NAME}:443:{THERE4}",
        "-o", laboratory.path("download-#1"), f"https://{NAME}/pattern/[0-{count - 1}]/{size}",
        seconds=TRANSFER_SECONDS,
    )  # fmt: skip
    assert done.returncode == 0, done.stderr
    for seed in range(count):
        with open(laboratory.path(f"download-{seed}"), "rb") as file:
            checker = pattern.Checker(seed)
            checker.feed(memoryview(file.read()))
        assert checker.verdict() == f"{size} exact bytes"
    check_proxied(laboratory, remote(THERE4, 443), CURL, ends=ENDS_WITH_UNREAD_BYTES)


@IPV4_AND_IPV6
def test_openssl_speaks_tls_through_the_proxy(laboratory, host):
    laboratory.start_nginx()
    laboratory.start_system()
    done = laboratory.run_application(
        OPENSSL, "s_client", "-connect", remote(host, 443), "-servername", NAME,
        "-verify_hostname", NAME, "-verify_return_error", "-quiet", "-alpn", "http/1.1",
        given=f"GET / HTTP/1.0\r\nHost: {NAME}\r\n\r\n".encode(),
    )  # fmt: skip
    assert done.returncode == 0, done.stderr.decode()
    assert re.search(rb"^HTTP/1\.1 200 OK", done.stdout)
    assert b"Verification error" not in done.stderr
    check_proxied(laboratory, remote(host, 443), OPENSSL, ends=ENDS_WITH_UNREAD_BYTES)


def test_another_local_proxy_carries_exact_bytes(laboratory):
    laboratory.start_nginx()
    laboratory.start_system(laboratory.start_tinyproxy)
    size = 128 << 20
    curl = start_curl(laboratory, f"https://{THERE4}/pattern/3/{size}", stdout=subprocess.PIPE)
    checker = pattern.Checker(3)
    with curl.stdout:
        checker.feed_from(curl.stdout)
    assert curl.wait() == 0
    assert checker.verdict() == f"{size} exact bytes"
    upload = laboratory.run_application(
        CURL, "-q", "-sS", "-T", "-", f"https://{THERE4}/pattern/4/0",
        given=b"".join(pattern.pieces(4, 32 << 20)),
    )  # fmt: skip
    assert upload.stdout.decode() == f"{32 << 20} exact bytes\n"
    check_proxied(laboratory, remote(THERE4, 443), CURL, count=2, ends=ENDS_WITH_UNREAD_BYTES)


@IPV4_AND_IPV6
@pytest.mark.parametrize("start_proxy", ["start_sidecar", "start_tinyproxy"])
def test_an_origin_may_speak_first(laboratory, host, start_proxy):
    greeting = b"220 " + b"x" * 5000 + b"\r\n"

    def greet(connection, _):
        connection.sendall(greeting)
        connection.sendall(receive_exactly(connection, 6)[::-1])

    laboratory.serve(5000, greet)
    laboratory.start_system(getattr(laboratory, start_proxy))
    for _ in range(20):
        with laboratory.connect(host, 5000) as application:
            assert receive_exactly(application, len(greeting)) == greeting
            application.sendall(b"abcdef")
            assert receive_all(application) == b"fedcba"


@IPV4_AND_IPV6
def test_short_connections_lose_nothing(laboratory, host):
    answer = hashlib.sha256(b"answer").digest() * 3000

    def answer_and_end(connection, _):
        receive_exactly(connection, 100)
        connection.sendall(answer)

    laboratory.serve(80, answer_and_end)
    laboratory.start_system()
    for _ in range(100):
        with laboratory.connect(host, 80) as application:
            application.sendall(b"x" * 100)
            received = receive_all(application)
            assert len(received) == len(answer) and received == answer
    check_proxied(laboratory, remote(host, 80), PYTHON, count=100)


@pytest.mark.parametrize("size", [1, 1000, 300_000])
@pytest.mark.parametrize("end", ["close", "shutdown"])
def test_data_sent_before_the_end_arrives(laboratory, size, end):
    """An application that sends and closes at once, both directions or only its sending side."""
    arrived = []
    all_are_there = threading.Semaphore(0)

    def collect(connection, _):
        try:
            arrived.append(receive_all(connection))
        except OSError as error:
            arrived.append(error)
        all_are_there.release()

    laboratory.serve(80, collect)
    laboratory.start_system()
    count = 50
    sent = bytes(piece for piece in pattern.piece(0, 256)) * (size // 256 + 1)
    for number in range(count):
        with laboratory.connect(THERE4, 80) as application:
            application.sendall(sent[number % 7 :][:size])
            if end == "shutdown":
                application.shutdown(socket.SHUT_WR)
                # A tunnel ends as a whole, and in order.
                assert application.recv(1) == b""
    for _ in range(count):
        assert all_are_there.acquire(timeout=30)
    assert sorted(map(len, arrived)) == [size] * count
    # In any order: they run in parallel.
    expected = sorted(sent[number % 7 :][:size] for number in range(count))
    assert sorted(arrived) == expected
    check_proxied(laboratory, remote(THERE4, 80), PYTHON, count)


def test_data_sent_before_the_origins_end_reaches_late_readers(laboratory):
    """An application that reads only after everything has ended."""
    sent = b"".join(pattern.pieces(1, 2 << 20))
    has_ended = threading.Event()

    def send_and_end(connection, _):
        connection.sendall(sent)
        has_ended.set()

    laboratory.serve(80, send_and_end)
    laboratory.start_system()
    with laboratory.connect(THERE4, 80) as application:
        # Two MiB fit into the buffers on the way.
        assert has_ended.wait(30)
        assert receive_all(application) == sent


def test_a_reset_of_the_application_ends_the_origins_connection(laboratory):
    ends = []
    has_ended = threading.Event()

    def wait_for_end(connection, _):
        assert receive_exactly(connection, 5) == b"hello"
        connection.sendall(b"world")
        try:
            ends.append(connection.recv(1))
        except OSError as error:
            ends.append(error)
        has_ended.set()

    laboratory.serve(80, wait_for_end)
    laboratory.start_system()
    application = laboratory.connect(THERE4, 80)
    application.sendall(b"hello")
    assert receive_exactly(application, 5) == b"world"
    reset(application)
    assert has_ended.wait(30)
    assert ends == [b""]
    assert shapes(laboratory.events.flow_to(remote(THERE4, 80)))[-1] == tunnel_closed(
        PYTHON, CONNECTION_RESET
    )


def test_a_reset_of_the_origin_is_a_reset_for_the_application(laboratory):
    def answer_and_reset(connection, _):
        receive_exactly(connection, 5)
        reset(connection)

    laboratory.serve(80, answer_and_reset)
    laboratory.start_system()
    with laboratory.connect(THERE4, 80) as application:
        application.sendall(b"hello")
        with pytest.raises(ConnectionResetError) as failure:
            application.recv(1)
        assert failure.value.errno == errno.ECONNRESET
    assert shapes(laboratory.events.flow_to(remote(THERE4, 80)))[-1] == tunnel_closed(
        PYTHON, CONNECTION_RESET
    )


def test_an_orderly_end_is_not_a_reset(laboratory):
    """Even when the other side still sends."""

    def end_while_they_send(connection, _):
        receive_exactly(connection, 5)
        connection.sendall(b"enough")
        connection.shutdown(socket.SHUT_WR)
        receive_all(connection)

    laboratory.serve(80, end_while_they_send)
    laboratory.start_system()
    for _ in range(20):
        with laboratory.connect(THERE4, 80) as application:
            application.sendall(b"hello")
            application.sendall(b"x" * 100_000)
            assert receive_all(application) == b"enough"


def test_a_source_port_is_reusable_after_a_reset(laboratory):
    """The kernel remembers the connection's redirection for some seconds."""

    def serve(connection, _):
        connection.sendall(b"here")
        connection.recv(1)
        reset(connection)

    laboratory.serve(80, serve)
    exempt = laboratory.copy_of(CURL, "vpn-client")
    laboratory.register({exempt: "com.mullvad.vpn"})
    laboratory.start_system()
    for index in range(8):
        with laboratory.socket(THERE4) as application:
            application.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            application.settimeout(30)
            application.bind((HERE4, 23456))
            application.connect((THERE4, 80))
            assert application.recv(4) == b"here"
            application.sendall(b"-")
            with pytest.raises(ConnectionResetError):
                application.recv(1)
        if index % 2 == 1:
            # Flows go to event loops in turn: the next one goes to another one.
            assert laboratory.curl(f"http://{THERE4}:{PEER_PORT}/", program=exempt).way == "direct"
