"""Private networks and a private /etc."""

import os
import pathlib
import socket
import subprocess
import sys
import threading
import time

import pytest

from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.namespace import Namespace, processes_in
from Laboratory.network import (
    HERE4,
    HERE6,
    NAME,
    THERE4,
    THERE6,
    Network,
    environment,
    key_of,
    make_certificate,
)
from Laboratory.private_etc import PrivateEtc
from Laboratory.problem import Problem
from Laboratory.program import Program


def current():
    return os.readlink("/proc/thread-self/ns/net")


@pytest.fixture
def namespace():
    made = Namespace()
    yield made
    made.close()


@pytest.fixture
def network():
    made = Network()
    yield made
    made.close()


def test_a_thread_is_inside_for_the_length_of_the_statement(namespace):
    outside = current()
    with namespace:
        assert current() == namespace.name != outside
        with namespace:
            assert current() == namespace.name
        assert current() == namespace.name
    assert current() == outside


def test_a_thread_comes_out_after_an_exception(namespace):
    outside = current()
    with pytest.raises(KeyError), namespace:
        raise KeyError
    assert current() == outside


def test_other_threads_are_not_affected(namespace):
    outside = current()
    seen = []
    barrier = threading.Barrier(2)
    thread = threading.Thread(target=lambda: (barrier.wait(), seen.append(current())))
    thread.start()
    with namespace:
        barrier.wait()
        thread.join()
    assert seen == [outside]


def test_a_thread_can_stay_inside(namespace):
    outside = current()
    seen = []
    thread = threading.Thread(target=lambda: (namespace.enter(), seen.append(current())))
    thread.start()
    thread.join()
    assert seen == [namespace.name]
    assert current() == outside


def test_loopback_works_for_both_families(namespace):
    with namespace:
        for address, family in (("127.0.0.1", socket.AF_INET), ("::1", socket.AF_INET6)):
            with socket.create_server((address, 0), family=family) as listener:
                socket.create_connection(listener.getsockname()[:2], 30).close()


def test_the_processes_inside_are_ended(namespace):
    inside = Program(["sleep", "1000"], namespace=namespace)
    outside = Program(["sleep", "1000"])
    assert processes_in(namespace.name) == [inside.pid]
    namespace.end_processes()
    assert processes_in(namespace.name) == []
    assert outside.process.poll() is None
    outside.close()


def test_a_failing_command_inside_is_a_problem(namespace):
    with pytest.raises(Problem, match="^ip: "):
        namespace.run("ip", "link", "set", "nothing", "up")


@pytest.mark.parametrize("here, there", [(HERE4, THERE4), (HERE6, THERE6)])
def test_the_cable_connects_here_and_there(network, here, there):
    family = socket.AF_INET6 if ":" in here else socket.AF_INET
    with network.there:
        listener = socket.create_server((there, 0), family=family)
    with network.here:
        application = socket.create_connection(listener.getsockname()[:2], 30)
    with listener, application:
        connection, peer = listener.accept()
        connection.close()
        assert peer[0] == here


def test_addresses_do_not_change_later(network):
    def tentative():
        return network.here.run("ip", "-6", "-o", "address", "show", "tentative")

    end = time.monotonic() + GENEROUS_SECONDS
    while tentative():
        assert time.monotonic() < end
    # The kernel has not looked for others with the same address, for which it waits a second.
    counters = dict(
        line.split() for line in network.here.run("cat", "/proc/net/snmp6").splitlines()
    )
    assert counters["Icmp6OutNeighborSolicits"] == "0"


def test_a_network_needs_no_permission_outside():
    script = (
        "from Laboratory.network import Network\n"
        "network = Network(); network.here.enter()\n"
        "with network.there: print('there')\n"
        "print(network.here.run('cat', '/proc/sys/net/ipv4/ip_forward'), end='')"
    )
    done = subprocess.run(
        ["unshare", "--user", "--map-root-user", sys.executable, "-B", "-c", script],
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
        capture_output=True, text=True, check=True,
    )  # fmt: skip
    assert done.stdout == "there\n0\n"


def test_the_certificate_is_valid_for_name_and_addresses(tmp_path):
    path = make_certificate(tmp_path)
    assert os.path.exists(key_of(path))
    for option, value in (("-checkhost", NAME), ("-checkip", THERE4), ("-checkip", THERE6)):
        done = subprocess.run(
            ["openssl", "x509", "-in", path, "-noout", option, value],
            capture_output=True, text=True, check=True,
        )  # fmt: skip
        assert "does match" in done.stdout


def test_programs_get_no_settings_of_the_machine(monkeypatch):
    for name in ("http_proxy", "HTTPS_PROXY", "CURL_HOME", "JOURNAL_STREAM"):
        monkeypatch.setenv(name, "of the machine")
    monkeypatch.setenv("KEPT", "of the machine")
    found = environment("/certificate.pem")
    assert found["SSL_CERT_FILE"] == found["CURL_CA_BUNDLE"] == "/certificate.pem"
    assert [name for name, value in found.items() if value == "of the machine"] == ["KEPT"]


def test_a_private_etc_replaces_entries_and_keeps_the_others(tmp_path):
    hosts = pathlib.Path("/etc/hosts").read_text()
    etc = PrivateEtc(str(tmp_path))
    pathlib.Path(etc.replacement("hosts")).write_text("private\n")
    os.mkdir(etc.replacement("ostravel"))
    pathlib.Path(etc.replacement("ostravel", "file")).write_text("own\n")
    command = etc.command("cat", "/etc/hosts", "/etc/ostravel/file", "/etc/passwd")
    done = subprocess.run(
        ["unshare", "--mount", "--propagation", "private", *command],
        capture_output=True, text=True, check=True,
    )  # fmt: skip
    assert done.stdout == "private\nown\n" + pathlib.Path("/etc/passwd").read_text()
    assert pathlib.Path("/etc/hosts").read_text() == hosts
    assert os.listdir(etc.mount_point) == []
