"""Starting, ending in every way, and limits: the machine's connections survive all of it."""

import asyncio
import contextlib
import errno
import os
import pathlib
import select
import signal
import socket
import time

import pytest

from Laboratory.network import HERE4, HERE6, THERE4, THERE6
from events import provider_stopped, shape
from laboratory import PEER_PORT, PYTHON, eventually, receive_all, remote
from origins import tell_peer

# Shorter than any deadline that could be involved: a handshake has five seconds. On a busy machine
# ending itself, and the programs that observe it, take a while.
END_SECONDS = 4
PROGRAMS = ("ostravel-extension", "ostravel-monitor", "ostravel-sidecar")


# Ending


def hold_a_connection(laboratory, proxy, host):
    """An application whose connect() waits for the proxy."""
    mark = proxy.mark()
    application = laboratory.socket(host)
    application.setblocking(False)
    assert application.connect_ex((host, 80)) == errno.EINPROGRESS
    proxy.wait("asked", mark)
    return application


def finish_connecting(application, seconds):
    """The error with which connect() ends."""
    _, writable, _ = select.select([], [application], [], seconds)
    assert writable, f"connect() is still blocked after {seconds} s"
    return application.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)


def check_is_direct(application, here):
    application.setblocking(True)
    application.settimeout(20)
    application.sendall(b"GET / HTTP/1.0\r\n\r\n")
    own_port = application.getsockname()[1]
    assert receive_all(application).endswith(f"\r\n{here} {own_port}\n".encode())


BOTH_FAMILIES = pytest.mark.parametrize("host, here", [(THERE4, HERE4), (THERE6, HERE6)])


@BOTH_FAMILIES
def test_after_a_kill_every_flow_is_direct(laboratory, host, here):
    laboratory.serve(80, tell_peer)
    proxy, extension = laboratory.start_system(laboratory.start_local_proxy)
    proxy.behave(answer="", then="hold")
    held = hold_a_connection(laboratory, proxy, host)
    assert laboratory.has_rules()
    begin = time.monotonic()
    extension.kill()
    assert laboratory.fetch(host, PEER_PORT).way == "direct"
    assert laboratory.curl(f"http://{remote(host, 80)}/").way == "direct"
    assert time.monotonic() - begin < END_SECONDS
    # The guardian, which keeps the last table, ends after the extension.
    eventually(lambda: laboratory.here.run("nft", "list", "ruleset") == "", "no rule is left")
    # The system itself retransmits the held packet.
    assert finish_connecting(held, 5) == 0
    check_is_direct(held, here)
    held.close()


@BOTH_FAMILIES
@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
def test_after_the_end_the_port_of_a_tunnel_can_be_used_again(laboratory, host, here, number):
    """Rules of other programs, such as Docker's, have the kernel track what has ended."""
    own_address = ("", 40123)
    laboratory.serve(80, tell_peer)
    laboratory.here.run(
        "nft", "-f", "-",
        given="""table inet other {
          chain out {
            type nat hook output priority 100;
            tcp dport 5353 redirect
          }
        }""",
    )  # fmt: skip
    _, extension = laboratory.start_system()
    with laboratory.socket(host) as carried:
        carried.bind(own_address)
        carried.connect((host, 80))
        carried.settimeout(20)
        # Until the guardian has ended as well, which holds standard error, too.
        extension.stop(number)
        with pytest.raises(ConnectionResetError):
            carried.recv(1)
    with laboratory.socket(host) as application:
        application.bind(own_address)
        application.settimeout(20)
        application.connect((host, 80))
        check_is_direct(application, here)


def test_it_can_be_restarted_after_a_kill(laboratory):
    _, extension = laboratory.start_system()
    for _ in range(3):
        extension.kill()
        assert laboratory.fetch(THERE4, PEER_PORT).way == "direct"
        extension = laboratory.start_extension()
        laboratory.wait_until_proxied()


def test_new_flows_pass_while_it_hangs_and_are_taken_afterwards(laboratory):
    laboratory.serve(80, tell_peer)
    laboratory.start_sidecar()
    extension = laboratory.start_extension("--no-guardian")
    eventually(lambda: laboratory.fetch(THERE4, 80).way == "proxied", "flows are proxied")
    begin = time.monotonic()
    extension.send_signal(signal.SIGSTOP)
    for host in (THERE4, THERE6):
        eventually(
            lambda host=host: laboratory.fetch(host, 80, seconds=0.2).way == "direct",
            "new flows pass",
        )
    # After a second, plus the delay of a busy machine.
    assert time.monotonic() - begin < END_SECONDS
    for _ in range(5):
        assert laboratory.fetch(THERE4, 80).way == "direct"
        assert laboratory.fetch(THERE6, 80).way == "direct"
    extension.send_signal(signal.SIGCONT)
    eventually(lambda: laboratory.fetch(THERE4, 80).way == "proxied", "flows are proxied again")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_it_ends_in_order_on_request(laboratory, number):
    _, extension = laboratory.start_system()
    begin = time.monotonic()
    assert extension.stop(number) == 0
    assert time.monotonic() - begin < END_SECONDS
    assert laboratory.here.run("nft", "list", "ruleset") == ""
    assert shape(laboratory.events.wait("provider_stopped")) == provider_stopped("1")
    assert laboratory.events.since()[-1]["current_signal"] == "provider_stopped"
    assert laboratory.fetch(THERE4, PEER_PORT).way == "direct"


def test_it_ends_with_its_terminal(laboratory):
    in_a_terminal = "import pty, sys; pty.spawn(sys.argv[1:])"
    terminal = laboratory.run_extension(prefix=(PYTHON, "-c", in_a_terminal))
    terminal.expect(terminal.output, "Rules set successfully")
    children = pathlib.Path(f"/proc/{terminal.pid}/task/{terminal.pid}/children")
    (extension,) = map(int, children.read_text().split())
    try:
        terminal.kill()
        eventually(lambda: not laboratory.has_rules(), "the extension has ended")
    finally:
        # Even a failed test leaves nothing running.
        with contextlib.suppress(ProcessLookupError):
            os.kill(extension, signal.SIGKILL)


@BOTH_FAMILIES
def test_ending_it_leaves_waiting_applications_to_the_system(laboratory, host, here):
    laboratory.serve(80, tell_peer)
    proxy, extension = laboratory.start_system(laboratory.start_local_proxy)
    proxy.behave(answer="", then="hold")
    held = [hold_a_connection(laboratory, proxy, host) for _ in range(10)]
    assert extension.stop() == 0
    for application in held:
        assert finish_connecting(application, 5) == 0
        check_is_direct(application, here)
        application.close()


def test_ending_it_does_not_wait_for_a_stalled_monitor(laboratory):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(laboratory.socket_path)
        listener.listen(0)
        laboratory.start_sidecar()
        extension = laboratory.start_extension()
        for _ in range(3):
            eventually(lambda: laboratory.fetch(THERE4, PEER_PORT).way == "proxied", "a tunnel")
        begin = time.monotonic()
        assert extension.stop() == 0
        assert time.monotonic() - begin < END_SECONDS
    assert not laboratory.has_rules()


def test_ending_it_with_many_tunnels_takes_no_longer(laboratory):
    laboratory.serve(80, None)
    _, extension = laboratory.start_system()
    held = asyncio.run(connect_many(laboratory, 300))
    begin = time.monotonic()
    assert extension.stop() == 0
    assert time.monotonic() - begin < END_SECONDS
    for application in held:
        application.close()


# Starting


def last_words(program, status=2):
    """The one line that a program prints before it exits with status."""
    assert program.wait() == status
    own = [line for line in program.errors.since() if line.startswith("ostravel-extension: ")]
    assert len(own) == 1
    assert program.errors.since()[-1] == own[0]
    return own[0]


def test_a_second_instance_fails_without_harming_the_first(laboratory):
    laboratory.start_system()
    second = laboratory.run_extension()
    assert last_words(second) == (
        "ostravel-extension: another instance is running in this network namespace (it owns the "
        "nftables table inet ostravel): stop it first"
    )
    for _ in range(5):
        assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"


@pytest.mark.parametrize(
    "prefix",
    [
        ("setpriv", "--bounding-set", "-net_admin", "--inh-caps", "-net_admin"),
        ("setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"),
    ],
    ids=["without CAP_NET_ADMIN", "as an ordinary user"],
)
def test_it_reports_a_missing_permission(laboratory, prefix):
    # Where every user may run it.
    laboratory.copy_of(laboratory.program_path("ostravel-extension"), "ostravel-extension")
    laboratory.programs_folder = laboratory.folder
    extension = laboratory.run_extension(prefix=prefix)
    assert last_words(extension) == (
        "ostravel-extension: the permission to administer the network (CAP_NET_ADMIN) is missing: "
        "run as root"
    )
    assert len(extension.errors.since()) == 1
    assert not laboratory.has_rules()


CONFIGURATION_ERRORS = {
    "not JSON": ('{\n  "monitoringSocketPath": oops\n}\n', ":2:"),
    "cut off": ('{"monitoringSocketPath": "/tmp/x"', ":1:"),
    "two objects": ("{}\n{}", ":2:"),
    "a key twice": ('{"a": 1,\n "a": 2}', ":2:"),
    "empty": ("", ":1:"),
    "an array": ('["monitoringSocketPath"]', ":1:1: the configuration must be a JSON object"),
    "a word": ('"x"', ":1:1: the configuration must be a JSON object"),
}


@pytest.mark.parametrize("name", CONFIGURATION_ERRORS)
@pytest.mark.parametrize("is_default", [False, True], ids=["named", "default"])
def test_the_error_in_a_wrong_configuration_is_located(laboratory, name, is_default):
    text, place = CONFIGURATION_ERRORS[name]
    if is_default:
        laboratory.write_default_configuration(text)
        path = "/etc/ostravel/provider-configuration.json"
        extension = laboratory.run_extension()
    else:
        path = laboratory.write_configuration(text)
        extension = laboratory.run_extension("--configuration", path)
    words = last_words(extension)
    assert words.startswith(f"ostravel-extension: {path}{place}")
    assert len(extension.errors.since()) == 1
    assert not laboratory.has_rules()


@pytest.mark.parametrize("kind", ["missing", "folder"])
def test_a_named_configuration_must_be_readable(laboratory, kind):
    path = laboratory.path("nowhere.json" if kind == "missing" else "etc")
    extension = laboratory.run_extension("--configuration", path)
    assert last_words(extension).startswith(f"ostravel-extension: {path}: cannot be read: ")
    assert len(extension.errors.since()) == 1


def test_the_default_configuration_is_read(laboratory):
    laboratory.start_monitor()
    laboratory.write_default_configuration()
    extension = laboratory.run_extension()
    laboratory.events.wait("provider_started")
    extension.expect(extension.errors, "Rules set successfully")
    assert extension.stop() == 0


def test_no_configuration_is_needed(laboratory):
    laboratory.start_sidecar()
    extension = laboratory.run_extension()
    extension.expect(extension.errors, "Rules set successfully")
    eventually(lambda: laboratory.fetch(THERE4, PEER_PORT).way == "proxied", "flows are proxied")
    assert extension.stop() == 0


@pytest.mark.parametrize("program", PROGRAMS)
def test_each_program_prints_its_usage(laboratory, program):
    path = laboratory.program_path(program)
    for option, wanted in (("--help", program), ("--version", program + " ")):
        done = laboratory.run_application(path, option)
        assert done.returncode == 0
        assert wanted in done.stdout.decode()
        assert done.stderr == b""
    for arguments in (["--unknown"], ["unexpected"], ["-x"]):
        done = laboratory.run_application(path, *arguments)
        assert done.returncode == 2
        assert done.stdout == b""
        (line,) = done.stderr.decode().splitlines()
        assert line.startswith(f"{program}: ")


@pytest.mark.parametrize("arguments", [["--configuration"], ["--log", "nowhere"], ["--log"]])
def test_options_are_checked(laboratory, arguments):
    done = laboratory.run_application(laboratory.program_path("ostravel-extension"), *arguments)
    assert done.returncode == 2
    (line,) = done.stderr.decode().splitlines()
    assert line.startswith("ostravel-extension: ")


# Limits


async def connect_many(laboratory, count, port=80):
    """Connections that are all open at the same time."""
    # More simultaneous handshakes of one user than this go direct.
    gate = asyncio.Semaphore(20)

    async def connect():
        application = laboratory.socket(THERE4)
        application.setblocking(False)
        async with gate:
            await asyncio.wait_for(
                asyncio.get_running_loop().sock_connect(application, (THERE4, port)), 60
            )
        return application

    return await asyncio.gather(*(connect() for _ in range(count)))


def test_2000_idle_tunnels_do_not_disturb(laboratory):
    count = 2000
    laboratory.serve(80, None)
    _, extension = laboratory.start_system()
    mark = laboratory.events.mark()
    held = asyncio.run(connect_many(laboratory, count))
    laboratory.events.wait_for_count("connect_handshake_succeeded", count, mark)

    begin = time.monotonic()
    for _ in range(50):
        assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    assert time.monotonic() - begin < 10

    for application in held:
        application.close()
    laboratory.events.wait_for_count("tunnel_closed", count + 50, mark)
    assert not any(event["level"] == "error" for event in laboratory.events.since(mark))
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    # The tunnels' resources have been released.
    eventually(lambda: len(os.listdir(f"/proc/{extension.pid}/fd")) < 100, "descriptors are free")


@pytest.mark.parametrize("descriptors", [8, 16, 20])
def test_a_start_without_enough_descriptors_fails_in_one_line(laboratory, descriptors):
    done = laboratory.run_application(
        "prlimit", f"--nofile={descriptors}:{descriptors}",
        laboratory.program_path("ostravel-extension"), "--no-guardian")
    assert done.returncode == 2
    lines = done.stderr.decode().splitlines()
    assert [line for line in lines if line.startswith("ostravel-extension: ")] == lines[-1:]
    assert f"the limit of {descriptors} open files is too low" in lines[-1]


def test_near_the_limit_of_descriptors_new_flows_are_direct(laboratory):
    count = 100
    peers = []

    def hold(connection, peer):
        peers.append(peer[1])
        connection.sendall(b"here")
        connection.recv(1)

    laboratory.serve(80, hold)
    laboratory.start_monitor()
    laboratory.start_sidecar()
    laboratory.start_extension(prefix=("prlimit", "--nofile=320:320"))
    laboratory.wait_until_proxied()
    held = []
    for _ in range(count):
        application = laboratory.connect(THERE4, 80)
        assert application.recv(4) == b"here"
        held.append(application)
    own_ports = [application.getsockname()[1] for application in held]
    direct = [port for port in own_ports if port in peers]
    # The first are carried, the last are not.
    assert 10 < len(direct) < count - 10
    assert own_ports[0] not in direct
    assert direct == own_ports[-len(direct) :]
    for application in held:
        application.close()
    eventually(lambda: laboratory.fetch(THERE4, PEER_PORT).way == "proxied", "flows are proxied")


def test_many_flows_at_once_are_all_answered(laboratory):
    """More simultaneous first packets than permitted handshakes, with a proxy that answers
    at once: every connection is made, some of them direct.
    """
    laboratory.serve(80, None)
    laboratory.start_system()
    applications = []
    for _ in range(150):
        application = laboratory.socket(THERE4)
        application.setblocking(False)
        assert application.connect_ex((THERE4, 80)) == errno.EINPROGRESS
        applications.append(application)
    outcomes = [finish_connecting(application, 10) for application in applications]
    assert set(outcomes) == {0}
    for application in applications:
        application.close()
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    assert laboratory.events.flow_to(remote(THERE4, 80))[0]["context"]["app_id"] == PYTHON
