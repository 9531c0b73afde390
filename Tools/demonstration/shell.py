"""A shell inside the network of the demonstration, with everything running."""

import os
import pathlib
import signal
import subprocess
import sys

from Laboratory.ostravel import PROXY_IS_USED, start_extension, start_monitor, start_sidecar
from Laboratory.problem import Problem
from screen import Screen, parse_event
from stage import ENDING_SIGNALS, EXEMPT_IDENTIFIER, Stage

# Read by the shell before anything else, interactive or not.
START_FILE = r"""
PATH=$OSTRAVEL_PROGRAMS:$PATH
events() { tail -n +1 "$@" "$OSTRAVEL_EVENTS"; }
tunnels() { tail -n +1 "$@" "$OSTRAVEL_TUNNELS"; }
rules() { nft list table inet ostravel 2> /dev/null || echo 'no table inet ostravel'; }

case $- in *i*)
  PS1='ostravel \w \$ '
  ostravel_shown=0
  # Shows the events since the last prompt; they come a moment after the command that caused them.
  ostravel_show_events() {
    local status=$? count
    sleep 0.2
    count=$(wc -l < "$OSTRAVEL_EVENTS")
    tail -n "+$((ostravel_shown + 1))" "$OSTRAVEL_EVENTS" | head -n "$((count - ostravel_shown))"
    ostravel_shown=$count
    return "$status"
  }
  PROMPT_COMMAND=ostravel_show_events
  ;;
esac
"""


class Shell:
    """The programs and one shell; what the monitor and the proxy say is in files."""

    def __init__(self, stage, programs_folder):
        self.stage = stage
        self.programs_folder = os.path.abspath(programs_folder)
        self.where = os.getcwd()

    def keep(self, name):
        """A function that adds a line to a file of this name."""
        file = open(self.stage.path(name), "a", encoding="utf-8", buffering=1)
        return lambda line: file.write(line + "\n")

    def start(self):
        monitor = start_monitor(
            self.programs_folder, self.stage.socket, on_output=self.keep("events")
        )
        extension = start_extension(self.programs_folder, self.stage.configuration)
        monitor.output.wait(self.is_event("proxy unreachable"))
        sidecar = start_sidecar(self.programs_folder, on_output=self.keep("tunnels"))
        if monitor.output.wait(self.is_event("proxy recovered")) is None:
            raise Problem("the extension did not notice the local proxy")
        # From now on flows are proxied.
        extension.expect(extension.errors, PROXY_IS_USED)
        self.process_ids = {
            "MONITOR": monitor.pid, "EXTENSION": extension.pid, "PROXY": sidecar.pid
        }  # fmt: skip

    @staticmethod
    def is_event(what):
        def matches(line):
            event = parse_event(line)
            return event is not None and event.what == what

        return matches

    def introduce(self, screen):
        show = screen.line
        show(screen.paint("bold", "A shell in the demonstration, with everything running"))
        show()
        show("  try    curl http://origin.example/               through the proxy")
        show("         curl -6 https://origin.example/           the same over IPv6, with TLS")
        show(f"         $VPN_CLIENT http://origin.example/        left alone: {EXEMPT_IDENTIFIER}")
        show("         kill -9 $PROXY                            and curl again: direct")
        show("         ostravel-sidecar &                        and again: proxied")
        show("         kill -9 $EXTENSION                        and again: direct, no rule left")
        show("         ostravel-extension --configuration $CONFIGURATION &")
        show("  see    events, tunnels, rules                    -f follows the first two")
        show("  leave  exit                                      nothing is left behind")
        show()
        screen.paragraph(
            "The answer names the port that the origin saw; curl -w '%{local_port}\\n' adds curl's "
            "own, which is another one when the proxy was between. New events are shown before "
            "each prompt."
        )
        show()

    def run(self):
        start_file = self.stage.path("shell-start")
        pathlib.Path(start_file).write_text(START_FILE)
        is_interactive = sys.stdin.isatty()
        if is_interactive:
            self.introduce(Screen())
        environment = self.stage.environment() | {
            "OSTRAVEL_PROGRAMS": self.programs_folder,
            "OSTRAVEL_EVENTS": self.stage.path("events"),
            "OSTRAVEL_TUNNELS": self.stage.path("tunnels"),
            "VPN_CLIENT": self.stage.exempt_curl,
            "CONFIGURATION": self.stage.configuration,
            **{name: str(pid) for name, pid in self.process_ids.items()},
        }
        if is_interactive:
            command = ["bash", "--rcfile", start_file, "-i"]
        else:
            command = ["bash"]
            environment["BASH_ENV"] = start_file
        shell = subprocess.Popen(command, env=environment, cwd=self.where)
        for each in ENDING_SIGNALS:
            signal.signal(each, lambda number, _: self.pass_on(shell, number))
        status = shell.wait()
        return status if status >= 0 else 128 - status

    @staticmethod
    def pass_on(shell, number):
        # A Ctrl-C is for what runs in the shell, which gets it from the terminal.
        if number != signal.SIGINT:
            shell.send_signal(signal.SIGHUP)


def run(programs_folder):
    with Stage() as stage:
        shell = Shell(stage, programs_folder)
        shell.start()
        return shell.run()
