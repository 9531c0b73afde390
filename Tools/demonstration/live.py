"""The main job in the network namespace of its caller, in the foreground, until it is ended."""

import contextlib
import json
import os
import pathlib
import pwd
import queue
import re
import signal
import socket
import subprocess
import tempfile
import threading
from typing import NamedTuple

from Laboratory.ostravel import CONTROL_PATH, start_extension, start_monitor, start_sidecar
from Laboratory.problem import Problem
from Laboratory.program import Program
from screen import Screen, parse_event
from stage import ENDING_SIGNALS

PROXY = ("127.0.0.1", 8080)
PROXY_ANSWER_SECONDS = 5
# A tunnel, or the answer of a proxy that refuses this one or cannot reach it.
PROXY_ANSWER = re.compile(r"HTTP/1\.[01] (2\d\d|403|407|429|50[0234])\b")
# Before the address, as ostravel-monitor says it.
PAGE_IS = "the live page is"
LOGIN_SETTINGS = "/etc/login.defs"
# The programs promise to end within two seconds.
END_SECONDS = 5
# A request to end may be noticed so late.
NOTICE_SECONDS = 0.5
# The last event is on its way when the extension has ended.
LAST_EVENT_SECONDS = 2


def tables():
    try:
        done = subprocess.run(
            ["nft", "list", "tables"], capture_output=True, text=True, check=False
        )
    except FileNotFoundError:
        raise Problem("the program nft is missing: install the package nftables", 2) from None
    if done.returncode != 0:
        raise Problem(
            "the network of this namespace cannot be administered (CAP_NET_ADMIN is missing): run "
            "as root",
            2,
        )
    return done.stdout


class Listener(NamedTuple):
    """The program that listens where the local proxy is expected."""

    description: str
    # Those of its users who are neither root nor system users, in the words of --proxy-user.
    ordinary_users: list


def last_system_user():
    """The highest number of a system user (login.defs(5))."""
    try:
        text = pathlib.Path(LOGIN_SETTINGS).read_text(errors="replace")
    except OSError:
        text = ""
    settings = {
        name: int(value)
        for name, value in re.findall(r"^\s*(SYS_UID_MAX|UID_MIN)\s+(\d+)\s*$", text, re.MULTILINE)
    }
    return settings.get("SYS_UID_MAX", settings.get("UID_MIN", 1000) - 1)


def ordinary_user_names(users):
    names = []
    for user in sorted(users):
        if user > last_system_user():
            try:
                names.append(pwd.getpwuid(user).pw_name)
            except KeyError:
                names.append(str(user))
    return names


def listener_on_proxy_port():
    """A Listener; None if nobody listens."""
    try:
        socket.create_connection(PROXY, PROXY_ANSWER_SECONDS).close()
    except OSError:
        return None
    done = subprocess.run(
        ["ss", "-Hltnpe", f"sport = :{PROXY[1]}"], capture_output=True, text=True, check=False
    )
    # The user of the socket, where it is not root, and that of the process.
    users = {int(user) for user in re.findall(r"\buid:(\d+)", done.stdout)}
    found = re.search(r'\(\("([^"]*)",pid=(\d+)', done.stdout)
    if not found:
        return Listener("a process of another user", ordinary_user_names(users))
    name, pid = found.groups()
    try:
        users.add(os.stat(f"/proc/{pid}").st_uid)
    except OSError:
        # It has just ended; the extension will test its successor.
        pass
    return Listener(f"{name} (process {pid})", ordinary_user_names(users))


def answer_to_connect():
    """The status line with which the local proxy answers a request for a tunnel to ourselves."""
    with socket.create_server(("127.0.0.1", 0)) as target:
        request = f"CONNECT 127.0.0.1:{target.getsockname()[1]} HTTP/1.1\r\n\r\n"
        try:
            with socket.create_connection(PROXY, PROXY_ANSWER_SECONDS) as proxy:
                proxy.sendall(request.encode())
                answer = proxy.recv(4096).split(b"\r\n")[0].decode(errors="replace")
                return answer or "the end of the connection"
        except OSError as error:
            return str(error)


class Live:
    """Starts the three programs, shows their events and ends them in order."""

    def __init__(self, screen, programs_folder, reasons, has_page):
        self.screen = screen
        self.programs_folder = programs_folder
        # What ends the job: the number of a signal, or the program that has ended by itself.
        self.reasons = reasons
        self.has_page = has_page
        self.monitor = self.sidecar = self.extension = None
        # Events wait until the introduction is there, or until it is known that none comes.
        self.introduction = threading.Event()
        self.is_introduced = False
        # Short: the path of a socket is limited (unix(7)).
        self.folder = tempfile.mkdtemp(prefix="ostravel-run-", dir="/tmp")
        self.socket_path = os.path.join(self.folder, "monitoring.sock")
        self.configuration_path = os.path.join(self.folder, "provider-configuration.json")

    def ended(self, program):
        if not program.is_ending:
            self.reasons.put(program)

    def run(self):
        watch = {"on_end": self.ended}
        pathlib.Path(self.configuration_path).write_text(
            json.dumps({"monitoringSocketPath": self.socket_path}) + "\n"
        )
        other = listener_on_proxy_port()
        answer = None
        if other is None:
            self.sidecar = start_sidecar(self.programs_folder, **watch)
        else:
            answer = answer_to_connect()
            if not PROXY_ANSWER.match(answer):
                raise Problem(
                    f"{other.description} listens on {PROXY[0]}:{PROXY[1]} and is no HTTP proxy "
                    f"(asked for a tunnel, it answers \"{answer}\"): stop it, or start a proxy in "
                    "its place",
                    2,
                )
        self.monitor = start_monitor(
            self.programs_folder, self.socket_path, *(["--web"] if self.has_page else []),
            on_output=self.show_event, **watch
        )  # fmt: skip
        # Where ostravelctl looks for it.
        options = ["--control", CONTROL_PATH]
        for user in other.ordinary_users if other else ():
            options += ["--proxy-user", user]
        self.extension = start_extension(
            self.programs_folder, self.configuration_path, *options, **watch
        )
        self.introduce(other, answer)
        self.is_introduced = True
        self.introduction.set()
        return self.wait_for_reason()

    def wait_for_reason(self):
        # A signal that arrives just before the wait begins does not interrupt it.
        while True:
            with contextlib.suppress(queue.Empty):
                return self.reasons.get(timeout=NOTICE_SECONDS)

    def show_event(self, line):
        self.introduction.wait()
        if self.is_introduced:
            self.screen.event(line)

    def introduce(self, other, answer):
        show = self.screen
        proxy = f"{PROXY[0]}:{PROXY[1]}"
        which = "ostravel-sidecar, started for it" if other is None else other.description
        show.paragraph(
            "From now on new connections of this machine's applications to the ports 80, 443, "
            f"11434, 1234, 8000, 5000 and 7860 go through the proxy on {proxy}, which is {which}."
        )
        if other is not None and other.ordinary_users:
            show.line()
            options = " ".join(f"--proxy-user {user}" for user in other.ordinary_users)
            show.paragraph(
                "This proxy runs as an ordinary user, who can read whatever is not encrypted of "
                f"everybody's connections. It is used all the same, by the option {options}.",
                colour="yellow",
            )
        if answer is not None and not answer.split()[1].startswith("2"):
            show.line()
            show.paragraph(
                f"Beware: asked for a tunnel to this machine, it answers \"{answer}\". Where it "
                "does that, connections are refused.",
                colour="yellow",
            )
        show.line()
        show.line("  try it, in another terminal   curl http://example.com/")
        show.line("  ask it, the same              build/release/bin/ostravelctl status")
        if self.has_page:
            page = self.monitor.expect(self.monitor.errors, PAGE_IS).partition(PAGE_IS)[2]
            show.line(f"  watch it, in a browser        {page.strip()}")
        show.line("  end it                        Ctrl-C")
        show.line()

    def stop(self):
        """Ends all in order; the line that says what is left, or None."""
        self.introduction.set()
        if self.extension and self.extension.stop(seconds=END_SECONDS) == 0:
            self.monitor.output.wait(
                lambda line: (event := parse_event(line)) is not None
                and event.what == "stopped",
                seconds=LAST_EVENT_SECONDS,
            )
        for program in (self.sidecar, self.monitor):
            if program:
                program.stop(seconds=END_SECONDS)
        pathlib.Path(self.configuration_path).unlink(missing_ok=True)
        # After a SIGKILL the monitor leaves its socket.
        if self.monitor and self.monitor.process.returncode != 0:
            pathlib.Path(self.socket_path).unlink(missing_ok=True)
        if os.listdir(self.folder):
            return f"{self.folder} is not empty"
        os.rmdir(self.folder)
        if self.extension and "table inet ostravel" in tables().splitlines():
            return "the nftables table inet ostravel is still there"
        return None


def run(programs_folder, *options):
    reasons = queue.SimpleQueue()
    for each in ENDING_SIGNALS:
        signal.signal(each, lambda number, _: reasons.put(number))
    screen = Screen(on_lost=lambda: reasons.put(signal.SIGPIPE))
    tables()
    live = Live(screen, programs_folder, reasons, "--web" in options)
    try:
        reason = live.run()
    finally:
        left = live.stop()
    if left:
        raise Problem(left)
    if isinstance(reason, Program):
        raise Problem(f"{reason.name} {reason.ending()}; the others have been stopped")
    screen.line("Ended: no rule, socket, file or process is left.")
    return 0
