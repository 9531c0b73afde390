"""What a program has written so far, line by line. Any thread can wait for a line."""

import pathlib
import threading
import time

# Far longer than anything here takes, even on a busy machine.
GENEROUS_SECONDS = 30
# A file gives no signal when it grows.
POLL_SECONDS = 0.02


class Lines:
    """Lines that a thread appends, and closes when no more can come."""

    def __init__(self):
        self._lines = []
        self._is_closed = False
        self._changed = threading.Condition()

    def append(self, line):
        with self._changed:
            self._lines.append(line)
            self._changed.notify_all()

    def close(self):
        with self._changed:
            self._is_closed = True
            self._changed.notify_all()

    def mark(self):
        """A position after everything that has arrived so far."""
        with self._changed:
            return len(self._lines)

    def since(self, mark=0):
        with self._changed:
            return self._lines[mark:]

    def wait_until(self, condition, seconds=GENEROUS_SECONDS):
        """Waits until condition(lines) returns a value; returns it, or None at the deadline."""
        deadline = time.monotonic() + seconds
        with self._changed:
            while True:
                found = condition(self._lines)
                left = deadline - time.monotonic()
                if found or self._is_closed or left <= 0:
                    return found or None
                self._changed.wait(left)

    def wait(self, matches, mark=0, seconds=GENEROUS_SECONDS):
        """The first line from mark on that matches; None if none comes."""
        return self.wait_until(first_match(matches, mark), seconds)


class FileLines:
    """The lines of a file to which a program writes, where a reader would disturb a measurement."""

    def __init__(self, path, has_ended):
        self._path = pathlib.Path(path)
        # Whether the program has ended, so that no more can come.
        self._has_ended = has_ended

    def mark(self):
        return len(self.since())

    def since(self, mark=0):
        """The complete lines from mark on."""
        text = self._path.read_text(errors="replace")
        return text[: text.rfind("\n") + 1].splitlines()[mark:]

    def wait(self, matches, mark=0, seconds=GENEROUS_SECONDS):
        """The first line from mark on that matches; None if none comes."""
        find = first_match(matches, mark)
        deadline = time.monotonic() + seconds
        while True:
            # Checked before the lines are read, so that its last words count.
            is_last = self._has_ended() or time.monotonic() > deadline
            line = find(self.since())
            if line is not None or is_last:
                return line
            time.sleep(POLL_SECONDS)


def first_match(matches, mark):
    """A function of all lines so far that looks at each line from mark on once."""
    seen = mark

    def find(lines):
        nonlocal seen
        while seen < len(lines):
            line = lines[seen]
            seen += 1
            if matches(line):
                return line
        return None

    return find
