"""The output for a person: text within the width of the terminal, in colour only on a terminal."""

import os
import re
import shutil
import sys
import textwrap
import threading
from typing import NamedTuple

NARROWEST = 60
WIDEST = 100

ESCAPES = {"red": "31", "green": "32", "yellow": "33", "cyan": "36", "bold": "1", "dim": "2"}
LEVELS = {"error": "red", "info": "green"}

# Time, level, flow, what has happened, application, and the rest, as ostravel-monitor writes them.
EVENT_LINE = re.compile(
    r"(\d\d:\d\d:\d\d\.\d+) (\S+) +(\S+) +(\S.*?)  +(\S+) +(\S.*)"
)


class Event(NamedTuple):
    """One line of ostravel-monitor, taken apart."""

    time: str
    level: str
    flow: str
    what: str
    application: str
    # Destination and reason.
    detail: str


def parse_event(line):
    found = EVENT_LINE.fullmatch(line.rstrip())
    return Event(*found.groups()) if found else None


class Screen:
    """Writes whole lines, from any thread. A reader that has gone away is no reason to fail."""

    def __init__(self, stream=sys.stdout, on_lost=lambda: None):
        self.stream = stream
        self.on_lost = on_lost
        self.is_terminal = stream.isatty()
        self.has_colour = self.is_terminal and "NO_COLOR" not in os.environ
        columns = shutil.get_terminal_size((WIDEST, 24)).columns if self.is_terminal else WIDEST
        self.width = max(NARROWEST, min(columns, WIDEST))
        self.lock = threading.Lock()

    def paint(self, colour, text):
        return f"\x1b[{ESCAPES[colour]}m{text}\x1b[0m" if self.has_colour and text else text

    def line(self, text=""):
        with self.lock:
            try:
                print(text, file=self.stream, flush=True)
            except OSError:
                # Discards whatever is written from now on, even by the interpreter at its end.
                nothing = os.open(os.devnull, os.O_WRONLY)
                os.dup2(nothing, self.stream.fileno())
                os.close(nothing)
                self.on_lost()

    def paragraph(self, text, indent="", colour=None):
        for line in textwrap.wrap(text, self.width - len(indent), break_on_hyphens=False):
            self.line(indent + (self.paint(colour, line) if colour else line))

    def fit(self, text, width):
        """As much of an event's text as there is room for; its reason only as a whole."""
        if len(text) > width:
            text = text.rpartition("  ")[0] or text
        return text if len(text) <= width else text[: width - 1] + "…"

    def event(self, line, indent="", is_short=False):
        """Shows a line of ostravel-monitor; a short one is kept within one line of the screen."""
        event = parse_event(line)
        if event is None:
            self.line(indent + line)
            return
        moment = event.time.partition(".")[0] if is_short else event.time
        application = "" if event.application == "-" else event.application + "  "
        what = f"{event.what:<18}  "
        # Without the dash that stands for a missing destination.
        text = application + re.sub("^- +|^-$", "", event.detail)
        text = re.sub("   +", "  ", text)
        if is_short:
            text = self.fit(text, self.width - len(f"{indent}{moment} error {what}"))
        level = self.paint(LEVELS.get(event.level, "yellow"), f"{event.level:<5}")
        self.line(f"{indent}{self.paint('dim', moment)} {level} {what}{text}")
