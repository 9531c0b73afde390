"""ostravelctl reports exactly what was done."""

import fcntl
import json
import os
import pty
import re
import select
import signal
import socket
import stat
import struct
import termios
import threading
import time

import pytest

from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.network import THERE4
from laboratory import CURL, PEER_PORT, eventually, remote
from origins import tell_peer

PROXIED, DIRECT, UNREACHABLE = 0, 1, 3
# No user of this machine.
ORDINARY_USER = 43434


def latest(laboratory):
    """The last decision about a flow of ours."""
    return decisions(laboratory)[-1]


def decisions(laboratory):
    return [json.loads(line) for line in laboratory.control("--json", "flows").stdout.splitlines()]


def wait_for_reason(laboratory, reason):
    eventually(
        lambda: laboratory.asked("status")["proxying"]["reason"] == reason,
        f"the status says {reason}",
    )


def test_what_is_counted_equals_what_was_done(laboratory):
    laboratory.serve(80, tell_peer)
    laboratory.start_system()
    wait_for_reason(laboratory, "proxied")
    before = laboratory.asked("status")
    assert before["proxying"]["active"] and before["gate"]["state"] == "open"
    mark = laboratory.events.mark()
    for _ in range(3):
        assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
        flow = laboratory.events.flow_to(remote(THERE4, 80), mark)
        mark = laboratory.events.mark()
    eventually(lambda: not latest(laboratory)["open"], "the last tunnel is closed")

    status = laboratory.asked("status")
    assert status["flows"]["proxied"] == before["flows"]["proxied"] + 3
    handshakes = [each["handshakes"]["outcomes"]["established"] for each in (before, status)]
    assert handshakes[1] == handshakes[0] + 3
    assert status["handshakes"]["pending_now"] == status["tunnels"]["now"] == 0
    assert status["verdicts"]["time"]["count"] >= 3
    assert status["guardian"] == "running" and status["queue"]["dropped"] == 0
    assert status["relay"]["copied_bytes"] > before["relay"]["copied_bytes"]
    assert status["relay"]["wakeups"] > before["relay"]["wakeups"]

    last = latest(laboratory)
    assert last["application"] == CURL and last["destination"] == remote(THERE4, 80)
    assert (last["action"], last["reason"], last["outcome"]) == ("proxied", "proxied", "closed")
    assert last["flow_id"] == flow[0]["flow_id"]
    assert last["bytes_sent"] > 50 and last["bytes_received"] > 50
    steps = last["steps_us"]
    assert 0 < steps["decided"] <= steps["established"] <= steps["ended"]
    assert 0 <= steps["connected"] <= steps["established"] and last["handshake_ms"] > 0

    shown = laboratory.control("status")
    assert shown.returncode == PROXIED
    lines = shown.stdout.splitlines()
    assert lines[0].startswith("New connections are proxied by")
    assert len(lines) <= 24 and max(map(len, lines)) <= 80


def test_a_tunnel_is_listed_while_it_is_open(laboratory):
    laboratory.start_pattern_origin(80)
    laboratory.start_system()
    with laboratory.connect(THERE4, 80):
        eventually(
            lambda: [flow for flow in json.loads(ask(laboratory, "tunnels"))["result"]["tunnels"]
                     if flow["outcome"] == "established"],
            "the tunnel is listed",
        )
    eventually(
        lambda: json.loads(ask(laboratory, "tunnels"))["result"]["count"] == 0, "no tunnel is listed"
    )


def ask(laboratory, request):
    """One request as any program can send it."""
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(laboratory.control_path)
        client.sendall(json.dumps({"version": 1, "request": request}).encode() + b"\n")
        return b"".join(iter(lambda: client.recv(65536), b"")).decode()


def test_reports_a_dead_proxy_and_its_return(laboratory):
    laboratory.serve(80, tell_peer)
    proxy, _ = laboratory.start_system()
    proxy.kill()
    wait_for_reason(laboratory, "proxy_unreachable")
    shown = laboratory.control("status")
    assert shown.returncode == DIRECT
    assert shown.stdout.startswith("New connections go direct: nothing answers on 127.0.0.1:8080.\n")
    assert laboratory.curl(f"http://{THERE4}/").way == "direct"
    assert latest(laboratory)["reason"] in ("gate_closed", "no_handler", "proxy_unknown")
    laboratory.start_sidecar()
    wait_for_reason(laboratory, "proxied")


def test_reports_a_hung_proxy_and_what_it_hit(laboratory):
    laboratory.serve(80, tell_peer)
    proxy, _ = laboratory.start_system(laboratory.start_local_proxy)
    proxy.behave(answer="", then="hold")
    begin = time.time()
    assert laboratory.curl(f"http://{THERE4}/").way == "direct"
    reasons = []

    def is_noticed():
        reasons.append(laboratory.asked("status")["proxying"]["reason"])
        return reasons[-1] == "proxy_not_answering"

    eventually(is_noticed, "the proxy is known to hang")
    # The gate is closed until the next probe, but not because nothing answers.
    assert "proxy_unreachable" not in reasons
    hit = [flow for flow in decisions(laboratory) if flow["outcome"] == "timed_out"]
    assert [flow["application"] for flow in hit] == [CURL]
    assert hit[0]["steps_us"]["ended"] > 4_000_000
    assert laboratory.asked("status")["proxying"]["since"] > begin
    assert laboratory.asked("status")["flows"]["direct_in_the_end"] == 1
    text = " ".join(laboratory.control("status").stdout.split())
    assert " direct (1 after waiting for the proxy)" in text
    assert "it does not answer in time; it belongs to root" in text
    # Further connections seldom wait for it, and are known nevertheless.
    eventually(
        lambda: laboratory.curl(f"http://{THERE4}/").way == "direct"
        and [flow for flow in decisions(laboratory)
             if flow["reason"] == "on_trial" and flow["application"] == CURL],
        "a connection that went direct at once",
    )  # fmt: skip
    proxy.behave()
    eventually(
        lambda: laboratory.curl(f"http://{THERE4}/").way == "proxied", "the proxy is used again"
    )
    wait_for_reason(laboratory, "proxied")


def test_what_is_held_and_pending_is_shown(laboratory):
    laboratory.serve(80, tell_peer)
    proxy, _ = laboratory.start_system(laboratory.start_local_proxy)
    proxy.behave(answer="", then="hold")
    laboratory.start([CURL, "-q", "-sS", f"http://{THERE4}/"])
    status = eventually(
        lambda: (now := laboratory.asked("status"))["handshakes"]["pending_now"] == 1 and now,
        "a handshake is pending",
    )
    assert status["flows"]["held_now"] == 1 and status["tunnels"]["now"] == 0
    assert "1 pending of 48" in laboratory.control("status").stdout
    proxy.program.kill()
    eventually(lambda: laboratory.asked("status")["flows"]["held_now"] == 0, "nothing is held")


def test_counts_failures_by_their_reason(laboratory):
    laboratory.register({CURL: "com.mullvad.vpn"})
    laboratory.serve(80, tell_peer)
    proxy, _ = laboratory.start_system(laboratory.start_local_proxy)
    wait_for_reason(laboratory, "proxied")
    before = laboratory.asked("status")

    def more(*path):
        counts = []
        for status in (before, laboratory.asked("status")):
            for member in path:
                status = status.get(member, 0) if status else 0
            counts.append(status)
        return counts[1] - counts[0]

    assert laboratory.curl(f"http://{THERE4}/").way == "direct"
    assert more("flows", "direct_by_reason", "exempt_application") == 1
    # Datagrams of one socket are one flow.
    for _ in range(2):
        with laboratory.socket(THERE4, socket.SOCK_DGRAM) as application:
            application.connect((THERE4, 443))
            application.settimeout(GENEROUS_SECONDS)
            for _ in range(3):
                application.send(b"initial")
                with pytest.raises(ConnectionRefusedError):
                    application.recv(2048)
    assert more("flows", "refused") == 2
    assert [flow["reason"] for flow in decisions(laboratory)[-2:]] == ["quic_refused"] * 2
    for answer, outcome in (("HTTP/1.1 403 No\r\n\r\n", "rejected"), ("\xff\r\n\r\n", "invalid"),
                            ("", "no_answer")):
        proxy.behave(answer=answer, then="end")
        laboratory.fetch(THERE4, 80)
        assert more("handshakes", "outcomes", outcome) == 1
    assert more("handshakes", "time", "count") == more("tunnels", "total") == 0
    proxy.program.kill()
    wait_for_reason(laboratory, "proxy_unreachable")
    eventually(
        lambda: laboratory.fetch(THERE4, 80).way == "direct"
        and more("flows", "direct_by_reason", "gate_closed") > 0,
        "the closed gate is counted",
    )
    status = laboratory.asked("status")
    assert not status["gate"]["last_probe"]["reachable"]
    assert status["gate"]["since"] > before["gate"]["since"]
    flows = status["flows"]
    assert flows["offered"] == flows["direct"] + flows["refused"] + flows["proxied"]
    assert flows["direct"] == sum(flows["direct_by_reason"].values())


def test_lost_events_are_counted(laboratory):
    laboratory.start_extension()
    events = eventually(
        lambda: (now := laboratory.asked("status")["events"])["failed"] > 0 and now, "one is lost"
    )
    assert events["configured"] and events["emitted"] >= events["failed"]


def test_says_why_a_listener_is_the_proxy_or_not(laboratory):
    answer = "HTTP/1.1 405 Not Allowed"
    listener = laboratory.start_local_proxy(answer=answer + "\r\n\r\n", then="end").program
    laboratory.start_extension()
    eventually(
        lambda: "does not answer CONNECT" in laboratory.asked("status")["proxying"]["message"],
        "the listener is named",
    )
    shown = laboratory.control("status")
    assert shown.returncode == DIRECT
    path = laboratory.path("local-proxy")
    assert f"New connections go direct: {path} (process {listener.pid}" in shown.stdout
    proxy = laboratory.asked("status")["proxy"]
    assert not proxy["serves"] and proxy["reason"].endswith(f": {answer}")


def test_names_the_user_who_owns_the_proxy(laboratory):
    laboratory.start_system()
    wait_for_reason(laboratory, "proxied")
    proxy = laboratory.asked("status")["proxy"]
    assert proxy["serves"] and "ostravel-sidecar" in proxy["process"]
    assert proxy["reason"] == (
        'it belongs to root, and answered a CONNECT with '
        '"HTTP/1.1 200 Connection established" when tested'
    )


def test_every_command_speaks_json(laboratory):
    laboratory.start_system()
    wait_for_reason(laboratory, "proxied")
    for command in (("status",), ("explain", "example.org"), ("reload",), ("check",)):
        done = laboratory.control("--json", *command)
        assert isinstance(json.loads(done.stdout), dict) and done.stdout.count("\n") == 1, command
    assert json.loads(laboratory.control("check", "--json").stdout)["findings"]
    assert decisions(laboratory)
    top = laboratory.start(
        [laboratory.program_path("ostravelctl"), "--socket", laboratory.control_path, "--json",
         "top"]
    )
    lines = [top.output.wait(lambda line: True, mark) for mark in range(2)]
    samples = [json.loads(line) for line in lines]
    assert samples[0]["active"] and samples[0]["gate"] == "open" and samples[0]["applications"]
    assert samples[1]["time"] > samples[0]["time"]


def test_a_refusal_is_shown_with_the_proxys_words(laboratory):
    laboratory.serve(80, tell_peer)
    proxy, _ = laboratory.start_system(laboratory.start_local_proxy)
    proxy.behave(answer="HTTP/1.1 403 Forbidden\r\n\r\n", then="end")
    laboratory.curl(f"http://{THERE4}/")
    last = latest(laboratory)
    assert (last["outcome"], last["detail"]) == ("rejected", "HTTP/1.1 403 Forbidden")


def test_explains_what_would_be_decided(laboratory):
    laboratory.register({CURL: "com.mullvad.vpn"})
    _, extension = laboratory.start_system()
    wait_for_reason(laboratory, "proxied")
    examined = laboratory.asked("status")["flows"]["offered"]

    def reason(*subjects):
        return laboratory.asked("explain", *subjects)["reason"]

    assert reason("example.org") == "proxied"
    assert reason("example.org", "--udp") == "quic_refused"
    assert reason("zoom.us", "--udp") == "realtime_media"
    assert reason("www.digicert.com:443") == "exempt_host"
    assert reason("example.org:22") == "port_not_selected"
    assert reason("127.0.0.1:8080") == "to_the_proxy"
    assert reason("https://user@www.digicert.com/a?b@c") == "exempt_host"
    assert reason("http://example.org:22/") == "port_not_selected"
    assert "TCP to port 80 " in laboratory.control("explain", "http://example.org").stdout
    assert reason(CURL, "example.org") == "exempt_application"
    assert reason(str(os.getpid())) == "proxied"
    answer = laboratory.asked("explain", CURL)
    assert (answer["application"], answer["application_from"]) == ("com.mullvad.vpn", "registration")
    assert laboratory.control("explain", "4194304").returncode == 1
    unknown = laboratory.control("explain", "some words")
    assert unknown.returncode == 2
    assert "not a process number, a path or a host: some words" in unknown.stderr
    shown = laboratory.control("explain", CURL, "example.org").stdout
    assert shown.endswith("direct (exempt_application)\n")
    assert laboratory.asked("status")["flows"]["offered"] == examined

    laboratory.register({}, extension)
    reloaded = laboratory.asked("reload")
    assert (reloaded["registrations"], reloaded["replaced"]) == (0, True)
    assert reason(CURL, "example.org") == "proxied"
    laboratory.register("no JSON", extension)
    assert laboratory.control("reload").returncode == 1


def test_follows_flows_as_they_are_decided(laboratory):
    laboratory.serve(80, tell_peer)
    laboratory.start_system()
    following = laboratory.start(
        [laboratory.program_path("ostravelctl"), "--socket", laboratory.control_path, "flows",
         "--follow", "--time", "utc"],
        name="ostravelctl",
    )
    mark = following.output.mark()
    assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
    line = following.output.wait(
        lambda line: remote(THERE4, 80) in line and " closed " in line, mark
    )
    assert line is not None and CURL in line
    assert re.match(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z ", line)


class RestartedExtension(threading.Thread):
    """Answers requests for decisions; after the first answer as an extension that has been restarted."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.asked_after = []
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(path)
        self._listener.listen()
        self.start()

    def run(self):
        for started_at in (100.0, 200.0, 200.0):
            client, _ = self._listener.accept()
            with client:
                after = json.loads(client.makefile().readline())["after"]
                self.asked_after.append(after)
                flows = [self._flow(started_at, number) for number in (1, 2) if number > after]
                result = {"last": 2, "missed": 0, "now": 300.0, "started_at": started_at,
                          "decisions": flows}  # fmt: skip
                answer = {"version": 1, "ok": True, "request": "decisions", "result": result}
                client.sendall(json.dumps(answer).encode() + b"\n")

    @staticmethod
    def _flow(started_at, number):
        return {
            "sequence": number, "time": started_at, "protocol": "tcp", "application": "",
            "destination": f"192.0.2.{number}:{started_at:.0f}", "action": "direct",
            "reason": "gate_closed", "outcome": "direct", "steps_us": {}, "open": False,
        }  # fmt: skip


def test_follows_flows_of_a_restarted_extension(laboratory, tmp_path):
    extension = RestartedExtension(str(tmp_path / "control.sock"))
    following = laboratory.start(
        [laboratory.program_path("ostravelctl"), "--socket", str(tmp_path / "control.sock"), "flows",
         "--follow"],
        name="ostravelctl",
    )  # fmt: skip
    for destination in ("192.0.2.1:100", "192.0.2.2:100", "192.0.2.1:200", "192.0.2.2:200"):
        assert following.output.wait(lambda line, text=destination: text in line, 0) is not None
    assert extension.asked_after == [0, 2, 0]


def test_an_unknown_style_of_times_is_refused(laboratory):
    done = laboratory.control("flows", "--time", "date")
    assert done.returncode == 2
    assert "--time: not time, local or utc: date" in done.stderr


def test_only_root_and_the_group_may_ask(laboratory):
    laboratory.start_system()
    mode = stat.S_IMODE(os.stat(laboratory.control_path).st_mode)
    assert mode in (0o600, 0o660)
    program = laboratory.copy_of(laboratory.program_path("ostravelctl"), "ostravelctl")
    done = laboratory.run_application(
        "setpriv", "--reuid", str(ORDINARY_USER), "--regid", str(ORDINARY_USER), "--clear-groups",
        program, "--socket", laboratory.control_path, "status",
    )
    assert done.returncode == UNREACHABLE
    assert "only root and members of the group ostravel" in done.stderr.decode()


def test_the_socket_of_a_killed_extension_is_replaced(laboratory):
    _, extension = laboratory.start_system()
    extension.kill()
    assert os.path.exists(laboratory.control_path)
    done = laboratory.control("status")
    assert done.returncode == UNREACHABLE and "is not running" in done.stderr
    extension = laboratory.start_extension()
    assert laboratory.asked("status")["program"]["pid"] == extension.pid
    # Another instance leaves it alone, wherever it runs.
    other = laboratory.run_extension(namespace=laboratory.there)
    other.expect(other.errors, "another program listens there")
    other.close()
    assert laboratory.asked("status")["program"]["pid"] == extension.pid
    extension.process.send_signal(signal.SIGTERM)
    extension.process.wait(timeout=20)
    assert not os.path.exists(laboratory.control_path)


class Screen:
    """A terminal in which a program runs."""

    def __init__(self, *arguments, rows=24, columns=80):
        environment = {**os.environ, "TERM": "xterm-256color", "LC_ALL": "C.UTF-8"}
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.execve(arguments[0], arguments, environment)
        self.written = b""
        self.resize(rows, columns)

    def resize(self, rows, columns):
        fcntl.ioctl(self.terminal, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def wait_for(self, text, seconds=20):
        end = time.monotonic() + seconds
        while text.encode() not in self.written and time.monotonic() < end:
            if select.select([self.terminal], [], [], 0.1)[0]:
                try:
                    self.written += os.read(self.terminal, 65536)
                except OSError:
                    break
        assert text.encode() in self.written, self.written[-2000:]

    def type(self, keys):
        os.write(self.terminal, keys.encode())

    def exit_status(self):
        try:
            while os.read(self.terminal, 65536):
                pass
        except OSError:
            pass
        os.close(self.terminal)
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])


@pytest.mark.parametrize("size", [(24, 80), (10, 40)])
def test_top_shows_a_screen_of_any_size(laboratory, size):
    laboratory.serve(PEER_PORT + 1, tell_peer)
    laboratory.start_system()
    screen = Screen(
        laboratory.program_path("ostravelctl"), "--socket", laboratory.control_path,
        "top", rows=size[0], columns=size[1],
    )
    screen.wait_for("New connections are proxied by"[: size[1]])
    screen.resize(30, 100)
    screen.wait_for("APPLICATION")
    screen.type("q")
    assert screen.exit_status() == 0
