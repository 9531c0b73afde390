"""Starts the programs of the system, waits for what they say, and ends them."""

import os
import signal
import subprocess
import threading
import time

# Far beyond what anything here takes, also on a machine that is busy with something else.
GENEROUS_SECONDS = 30
# The programs promise to end within two seconds.
END_SECONDS = 5


class Problem(Exception):
    """Ends the job with one line; status is the exit status."""

    def __init__(self, text, status=1):
        super().__init__(text)
        self.status = status


class Lines:
    """What a program has written so far, line by line; others can wait for a line to come."""

    def __init__(self):
        self.lines = []
        self.is_closed = False
        self.changed = threading.Condition()

    def append(self, line):
        with self.changed:
            self.lines.append(line)
            self.changed.notify_all()

    def close(self):
        with self.changed:
            self.is_closed = True
            self.changed.notify_all()

    def mark(self):
        """A place to look from later: behind everything that is there now."""
        with self.changed:
            return len(self.lines)

    def since(self, mark):
        with self.changed:
            return self.lines[mark:]

    def wait(self, matches, mark=0, seconds=GENEROUS_SECONDS):
        """The first line from mark on that matches; None if none comes."""
        deadline = time.monotonic() + seconds
        with self.changed:
            while True:
                for line in self.lines[mark:]:
                    if matches(line):
                        return line
                mark = len(self.lines)
                left = deadline - time.monotonic()
                if self.is_closed or left <= 0:
                    return None
                self.changed.wait(left)


class Program:
    """A child process in a session of its own, so that a Ctrl-C meant for us does not reach it.

    It dies with us, however we end. Started by the main thread only, because its life is tied to
    the thread that starts it (prctl(2), PR_SET_PDEATHSIG).
    """

    def __init__(self, arguments, on_output=None, on_error=None, on_end=None, **options):
        self.name = os.path.basename(arguments[0])
        self.output = Lines()
        self.errors = Lines()
        self.is_ending = False
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", *arguments],
            stdin=options.pop("stdin", subprocess.DEVNULL),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            errors="replace",
            start_new_session=True,
            **options,
        )
        self.pid = self.process.pid
        self.readers = [
            self._read(self.process.stdout, self.output, on_output),
            self._read(self.process.stderr, self.errors, on_error),
        ]
        if on_end:
            threading.Thread(target=self._watch, args=(on_end,), daemon=True).start()

    def _read(self, stream, lines, on_line):
        def run():
            for line in stream:
                line = line.rstrip("\n")
                if on_line:
                    on_line(line)
                lines.append(line)
            lines.close()

        thread = threading.Thread(target=run, daemon=True)
        thread.start()
        return thread

    def _watch(self, on_end):
        self.process.wait()
        on_end(self)

    def expect(self, lines, text, mark=0):
        """Waits until the program has said text; it is a problem if it does not."""
        if lines.wait(lambda line: text in line, mark) is None:
            raise self.problem(f"did not say \"{text}\"")

    def problem(self, otherwise):
        """Why the program did not do what it should: its own last word, if it has ended."""
        try:
            status = self.process.wait(1)
        except subprocess.TimeoutExpired:
            self.kill()
            return Problem(f"{self.name} {otherwise}")
        self.settle()
        words = [line for line in self.errors.since(0) if line.strip()]
        if status == 2 and words:
            return Problem(words[-1], 2)
        return Problem(f"{self.name} {self.ending()}" + "".join(f"\n  {word}" for word in words))

    def ending(self):
        status = self.process.returncode
        if status is not None and status < 0:
            return f"was ended by {signal.Signals(-status).name}"
        return f"ended with status {status}"

    def settle(self):
        """Waits until everything that the ended program had written has been read."""
        for reader in self.readers:
            reader.join(END_SECONDS)

    def kill(self):
        """As a crash would end it."""
        self.is_ending = True
        self.process.kill()
        self.process.wait()

    def stop(self):
        """In order; true if the program agreed that it was."""
        self.is_ending = True
        if self.process.poll() is None:
            self.process.terminate()
        try:
            status = self.process.wait(END_SECONDS)
        except subprocess.TimeoutExpired:
            self.kill()
            return False
        self.settle()
        return status == 0


def start_monitor(folder, socket_path, on_event, **watch):
    monitor = Program([f"{folder}/ostravel-monitor", "--socket", socket_path], on_event, **watch)
    monitor.expect(monitor.errors, "listening on")
    return monitor


def start_sidecar(folder, **watch):
    sidecar = Program([f"{folder}/ostravel-sidecar"], **watch)
    sidecar.expect(sidecar.output, "listening on")
    return sidecar


# The extension's line when it has tried a new proxy and begins to send flows to it.
PROXY_IS_USED = "the local proxy is"


def start_extension(folder, configuration_path, *options, **watch):
    extension = Program(
        [f"{folder}/ostravel-extension", "--log", "stderr", "--configuration", configuration_path,
         *options],
        **watch,
    )
    extension.expect(extension.errors, "Rules set successfully")
    return extension
