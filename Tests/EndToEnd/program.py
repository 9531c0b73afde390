"""Starts programs, reads their output, and ends them."""

import os
import signal
import subprocess
import threading
import time

# Far longer than anything here takes, even on a busy machine.
GENEROUS_SECONDS = 30


class Lines:
    """A program's output so far, line by line; callers can wait for a line."""

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
        seen = mark

        def find(lines):
            nonlocal seen
            while seen < len(lines):
                line = lines[seen]
                seen += 1
                if matches(line):
                    return line
            return None

        return self.wait_until(find, seconds)


class Program:
    """A child process in a namespace, whose output is read as it comes.

    It is killed when we end for any reason. Started by the main thread only, because it is tied to
    the thread that starts it (prctl(2), PR_SET_PDEATHSIG). With a number it runs as that user, who
    need not have a name.
    """

    def __init__(
        self,
        namespace,
        arguments,
        name=None,
        environment=None,
        has_input=False,
        reads_errors=True,
        user=None,
    ):
        assert threading.current_thread() is threading.main_thread()
        self.name = name or os.path.basename(arguments[0])
        self.output = Lines()
        self.errors = Lines()
        identity = () if user is None else ("--reuid", user, "--regid", user, "--clear-groups")
        with namespace:
            self.process = subprocess.Popen(
                ["setpriv", *map(str, identity), "--pdeathsig", "KILL", *arguments],
                stdin=subprocess.PIPE if has_input else subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                text=True,
                errors="replace",
                env=environment,
                start_new_session=True,
            )
        self._readers = [self._read(self.process.stdout, self.output)]
        if reads_errors:
            self.read_errors()

    def read_errors(self):
        """Reads standard error from now on, for a program that was started without reading it."""
        self._readers.append(self._read(self.process.stderr, self.errors))

    @staticmethod
    def _read(stream, lines):
        def run():
            with stream:
                for line in stream:
                    lines.append(line.rstrip("\n"))
            lines.close()

        thread = threading.Thread(target=run, daemon=True)
        thread.start()
        return thread

    @property
    def pid(self):
        return self.process.pid

    def tell(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def expect(self, lines, text, mark=0):
        """Waits for a line that contains text, and returns it."""
        line = lines.wait(lambda line: text in line, mark)
        assert line is not None, f"{self.name} did not print \"{text}\""
        return line

    def send_signal(self, number):
        os.kill(self.pid, number)

    def kill(self):
        """As a crash would end it."""
        self.process.kill()
        self.wait()

    def wait(self, seconds=GENEROUS_SECONDS):
        """Waits until it has ended and all its output has arrived; returns its status."""
        status = self.process.wait(seconds)
        for reader in self._readers:
            reader.join(GENEROUS_SECONDS)
        if self.process.stdin:
            self.process.stdin.close()
        return status

    def stop(self, number=signal.SIGTERM):
        """Asks it to end and waits for it; returns its status."""
        self.send_signal(number)
        return self.wait()

    def close(self):
        """Kills it if it is still running, even if it is stopped by a signal."""
        if self.process.poll() is None:
            self.kill()
