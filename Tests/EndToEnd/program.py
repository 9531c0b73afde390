"""Starts programs, reads what they say, and ends them."""

import os
import signal
import subprocess
import threading
import time

# Far beyond what anything here takes, also on a machine that is busy with something else.
GENEROUS_SECONDS = 30


class Lines:
    """What a program has written so far, line by line; others can wait for a line to come."""

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
        """A place to look from later: behind everything that is there now."""
        with self._changed:
            return len(self._lines)

    def since(self, mark=0):
        with self._changed:
            return self._lines[mark:]

    def wait_until(self, condition, seconds=GENEROUS_SECONDS):
        """Waits until condition(lines) is something; that, or None in the end."""
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

    It dies with us, however we end. Started by the main thread only, because its life is tied to
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
        """Reads standard error from now on, for a program that was started without."""
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
        """Waits until the program has said text, in a line that is returned."""
        line = lines.wait(lambda line: text in line, mark)
        assert line is not None, f"{self.name} did not say \"{text}\""
        return line

    def send_signal(self, number):
        os.kill(self.pid, number)

    def kill(self):
        """As a crash would end it."""
        self.process.kill()
        self.wait()

    def wait(self, seconds=GENEROUS_SECONDS):
        """Waits until it has ended and everything that it had written is there; its status."""
        status = self.process.wait(seconds)
        for reader in self._readers:
            reader.join(GENEROUS_SECONDS)
        if self.process.stdin:
            self.process.stdin.close()
        return status

    def stop(self, number=signal.SIGTERM):
        """Asks it to end, and waits for it; its status."""
        self.send_signal(number)
        return self.wait()

    def close(self):
        """Ends it at once if it is still there, also when it is stopped by a signal."""
        if self.process.poll() is None:
            self.kill()
