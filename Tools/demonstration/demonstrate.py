"""Runs the main job for real in a private network, step by step, and checks each step."""

import os
import re
import subprocess
import time
from typing import NamedTuple

import Laboratory.program
from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.network import NAME, THERE4
from Laboratory.ostravel import PROXY_IS_USED, start_extension, start_monitor, start_sidecar
from screen import Screen, parse_event
from stage import EXEMPT_IDENTIFIER, Stage

PYTHON = os.path.realpath("/usr/bin/python3")

# The time in which a line arrives that was written before the application had its answer.
WRITTEN_SECONDS = 10

# An application in Python: fetches a page and says which of its own ports it used.
FETCH = """
import http.client, sys
connection = http.client.HTTPConnection(sys.argv[1], int(sys.argv[2]), timeout=20)
connection.request("GET", "/")
port = connection.sock.getsockname()[1]
print(connection.getresponse().read().decode().strip())
print("local port", port)
"""

# Another one: sends one datagram and prints its fate.
DATAGRAM = """
import socket, sys, time
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
    sock.settimeout(20)
    sock.connect((sys.argv[1], 443))
    start = time.monotonic()
    sock.send(b"initial")
    try:
        sock.recv(2048)
        result = "answered"
    except ConnectionRefusedError:
        result = "refused"
    except TimeoutError:
        result = "lost"
print(result, round((time.monotonic() - start) * 1000, 1))
"""

class Outcome(NamedTuple):
    title: str
    expected: str
    seen: str


class Demonstration:
    """The programs, the stage and what has been seen so far."""

    def __init__(self, screen, stage, programs_folder):
        self.screen = screen
        self.stage = stage
        self.folder = programs_folder
        self.outcomes = []
        self.title = None

    # What is shown

    def introduce(self):
        show = self.screen
        show.line(show.paint("bold", "The main job, for real, in a network of its own"))
        show.line()
        show.line("  here   ostravel-extension, -monitor and -sidecar (the local proxy);")
        show.line("         curl, openssl and python3 as applications")
        show.line(f"  there  {NAME} with the ports 80, 443 (TLS), 11434, and UDP 443")
        show.line()
        show.paragraph(
            "Here and there are two network namespaces, joined by a virtual cable; the network of "
            "this machine is not touched. Lines with a time are events, from ostravel-monitor."
        )

    def step(self, title, explanation=""):
        self.title = title
        number = len(self.outcomes) + 1
        self.screen.line()
        self.screen.line(self.screen.paint("bold", f"{number:>2}  {title}"))
        if explanation:
            self.say(explanation)

    def say(self, text):
        self.screen.paragraph(text, indent="    ")

    def command(self, text):
        self.screen.line("    " + self.screen.paint("cyan", "$ " + text))

    def conclude(self, expected, seen):
        outcome = Outcome(self.title, expected, seen)
        self.outcomes.append(outcome)
        mark = self._mark(outcome)
        self.screen.line(f"    {mark}  {seen}" + ("" if expected == seen else f", not {expected}"))

    def _mark(self, outcome):
        if outcome.expected == outcome.seen:
            return self.screen.paint("green", "ok")
        return self.screen.paint("red", "DIFFERS")

    def summarise(self, seconds):
        show = self.screen
        titles = max(len(outcome.title) for outcome in self.outcomes)
        words = max(len(word) for outcome in self.outcomes for word in outcome[1:])
        show.line()
        show.line(show.paint("bold", f"    {'step':<{titles}}  {'expected':<{words}}  seen"))
        for number, outcome in enumerate(self.outcomes, 1):
            show.line(
                f"{number:>2}  {outcome.title:<{titles}}  {outcome.expected:<{words}}  "
                f"{outcome.seen:<{words}}  {self._mark(outcome)}"
            )
        differing = sum(outcome.expected != outcome.seen for outcome in self.outcomes)
        show.line()
        if differing:
            show.line(f"{differing} of {len(self.outcomes)} steps differ ({seconds:.1f} s).")
        else:
            show.line(f"All {len(self.outcomes)} steps as expected, in {seconds:.1f} s.")
        show.line()
        show.line("  ./run live         the same for this machine, until Ctrl-C")
        show.line("  ./run live --web   with a live page for the browser")
        show.line("  ./run shell        a shell inside this demonstration, to try things by hand")
        show.line("  README.md, Documentation/life-of-a-flow.md   how it works")
        return 1 if differing else 0

    # The programs

    def start_monitor(self):
        def show(line):
            self.screen.event(line, "    ", is_short=True)

        self.monitor = start_monitor(self.folder, self.stage.socket, on_output=show)

    def start_extension(self):
        self.extension = start_extension(self.folder, self.stage.configuration)

    def start_sidecar(self):
        self.sidecar = start_sidecar(self.folder)

    # What has happened

    def wait_for_event(self, what, application=None, mark=0):
        def matches(line):
            event = parse_event(line)
            return (
                event is not None
                and event.what.startswith(what)
                and application in (None, event.application)
            )

        return self.monitor.output.wait(matches, mark) is not None

    def events(self, application, mark):
        events = map(parse_event, self.monitor.output.since(mark))
        return [event for event in events if event and event.application == application]

    @staticmethod
    def is_tunnel_of(application):
        return lambda line: f" app={application} " in line and " established to " in line

    def tunnels(self, application, mark):
        return list(filter(self.is_tunnel_of(application), self.sidecar.output.since(mark)))

    # Applications

    def application(self, *arguments, given=None):
        try:
            done = subprocess.run(
                arguments,
                input=given,
                capture_output=True,
                text=True,
                errors="replace",
                timeout=GENEROUS_SECONDS,
                check=False,
                env=self.stage.environment(),
            )
        except subprocess.TimeoutExpired:
            return f"failed: no end in {GENEROUS_SECONDS} s"
        if done.returncode != 0:
            reason = done.stderr.strip().splitlines() or [""]
            return f"failed with status {done.returncode}: {reason[-1]}"
        return done.stdout

    def observe(self, identifier, arguments, given=None):
        """Runs an application and finds out which way its request went.

        There are three witnesses: the log of the local proxy, the port from which the origin saw
        the connection come (the application's own, unless another program made it), and the events.
        """
        events_mark = self.monitor.output.mark()
        tunnels_mark = self.sidecar.output.mark()
        text = self.application(*arguments, given=given)
        answer = re.search(r"^hello from .* port (\d+)$", text, re.MULTILINE)
        if not answer:
            self.say(text.strip())
            return "no answer"
        own = re.search(r"^local port (\d+)$", text, re.MULTILINE)
        if own is not None and own.group(1) == answer.group(1):
            self.say(f"{answer.group()} (its own port)")
            has_trace = self.tunnels(identifier, tunnels_mark) or self.events(
                identifier, events_mark
            )
            return "direct, a trace" if has_trace else "direct"
        has_tunnel = self.sidecar.output.wait(
            self.is_tunnel_of(identifier), tunnels_mark, WRITTEN_SECONDS
        )
        has_event = has_tunnel and self.wait_for_event("closed", identifier, events_mark)
        self.say(answer.group() + (f" (own port {own.group(1)})" if own else ""))
        if not has_tunnel:
            return "not by the proxy"
        return "proxied" if has_event else "proxied, no event"

    def curl(self, url, *options, program="/usr/bin/curl"):
        shown = program if program != "/usr/bin/curl" else "curl"
        self.command(" ".join([shown, *options, url]))
        return self.observe(
            program,
            [program, "-q", "-sS", "--max-time", "20", "-w", "local port %{local_port}\n",
             *options, url],
        )  # fmt: skip

    def python(self, host, port):
        self.command(f"python3 fetch.py http://{host}:{port}/")
        return self.observe(PYTHON, [PYTHON, "-c", FETCH, host, str(port)])

    def s_client(self):
        self.command(f"openssl s_client -connect {NAME}:443")
        return self.observe(
            "/usr/bin/openssl",
            ["/usr/bin/openssl", "s_client", "-connect", f"{NAME}:443", "-servername", NAME,
             "-verify_hostname", NAME, "-verify_return_error", "-quiet"],
            given=f"GET / HTTP/1.0\r\nHost: {NAME}\r\n\r\n",
        )  # fmt: skip

    def datagram(self):
        self.command(f"python3 datagram.py {NAME} 443")
        text = self.application(PYTHON, "-c", DATAGRAM, THERE4).strip()
        found = re.fullmatch(r"(\w+) ([\d.]+)", text)
        if not found:
            self.say(text)
            return "no result"
        result, milliseconds = found.groups()
        self.say(f"{result} after {milliseconds} ms")
        return "refused at once" if result == "refused" and float(milliseconds) < 1000 else result

    def has_rules(self):
        return "table inet ostravel" in Laboratory.program.run("nft", "list", "tables").splitlines()

    # The steps

    def run_steps(self):
        self.step("Start", "The extension finds no proxy, and then one.")
        self.start_monitor()
        self.command("ostravel-extension --configuration provider-configuration.json")
        self.start_extension()
        is_missed = self.wait_for_event("proxy unreachable")
        self.command("ostravel-sidecar")
        self.start_sidecar()
        is_found = self.wait_for_event("proxy recovered")
        self.extension.expect(self.extension.errors, PROXY_IS_USED)
        is_ready = is_missed and is_found and self.has_rules()
        self.conclude("ready", "ready" if is_ready else "not ready")

        self.step("HTTP over IPv4", "The origin sees a port that is not curl's own.")
        self.conclude("proxied", self.curl(f"http://{NAME}/", "-4"))

        self.step("HTTP over IPv6")
        self.conclude("proxied", self.curl(f"http://{NAME}/", "-6"))

        self.step("HTTPS", "The proxy carries the bytes and cannot read them.")
        self.conclude("proxied", self.curl(f"https://{NAME}/"))

        self.step("TLS by another application")
        self.conclude("proxied", self.s_client())

        self.step("Port 11434 on this machine", "A local model server, say.")
        self.conclude("proxied", self.python("127.0.0.1", 11434))

        self.step("Port 11434 on another machine")
        self.conclude("proxied", self.python(NAME, 11434))

        self.step(
            "An exempt application",
            f"A copy of curl, registered as {EXEMPT_IDENTIFIER}, one of those left alone.",
        )
        self.conclude("direct", self.curl(f"http://{NAME}/", program=self.stage.exempt_curl))

        self.step("QUIC", "UDP to port 443 is refused, so that applications fall back to TCP.")
        self.conclude("refused at once", self.datagram())

        self.step("The proxy is killed", "Fail open: new connections go direct.")
        mark = self.monitor.output.mark()
        self.command("kill -9 $(pidof ostravel-sidecar)")
        self.sidecar.kill()
        is_noticed = self.wait_for_event("proxy unreachable", mark=mark)
        seen = self.curl(f"http://{NAME}/")
        self.conclude("direct", seen if is_noticed else f"{seen}, no event")

        self.step("QUIC without a proxy")
        self.conclude("answered", self.datagram())

        self.step("The proxy is back")
        mark, errors_mark = self.monitor.output.mark(), self.extension.errors.mark()
        self.command("ostravel-sidecar")
        self.start_sidecar()
        is_noticed = self.wait_for_event("proxy recovered", mark=mark)
        self.extension.expect(self.extension.errors, PROXY_IS_USED, errors_mark)
        seen = self.curl(f"http://{NAME}/")
        self.conclude("proxied", seen if is_noticed else f"{seen}, no event")

        self.step("The extension is killed", "Fail open again: the kernel removes its rules.")
        had_rules = self.has_rules()
        self.command("kill -9 $(pidof ostravel-extension)")
        self.extension.kill()
        seen = self.curl(f"http://{NAME}/")
        self.command("nft list tables")
        rules = "no rules" if had_rules and not self.has_rules() else "rules left"
        self.conclude("direct, no rules", f"{seen}, {rules}")


def run(programs_folder):
    start = time.monotonic()
    with Stage() as stage:
        demonstration = Demonstration(Screen(), stage, programs_folder)
        demonstration.introduce()
        demonstration.run_steps()
        return demonstration.summarise(time.monotonic() - start)
