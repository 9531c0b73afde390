"""Child processes that end with us, and system programs that are run to their end."""

import contextlib
import os
import shutil
import signal
import subprocess
import threading

from .lines import GENEROUS_SECONDS, FileLines, Lines
from .problem import Problem


def find_missing(folder, own_programs, foreign_programs):
    """One sentence about the first program that is missing; None if all are there.

    Our own programs are in folder. foreign_programs maps the names of others to their packages.
    """
    for name in own_programs:
        if not os.access(os.path.join(folder, name), os.X_OK):
            return f"{name} is not in {folder}: build it first"
    for name, package in foreign_programs.items():
        if shutil.which(name) is None:
            return f"the program {name} is missing: install the package {package}"
    return None


def run(*arguments, given=None):
    """Runs a system program to its end and returns its output; it is a Problem if it fails."""
    done = subprocess.run(
        arguments,
        input=given,
        capture_output=True,
        text=True,
        timeout=GENEROUS_SECONDS,
        check=False,
    )
    if done.returncode != 0:
        reason = (done.stderr or done.stdout).strip().splitlines() or ["no reason given"]
        raise Problem(f"{arguments[0]}: {reason[-1]} ({' '.join(arguments)})")
    return done.stdout


def as_user(user=None):
    """The beginning of a command that is killed when its parent ends.

    It runs as the user of that number, who need not have a name.
    """
    identity = () if user is None else ("--reuid", user, "--regid", user, "--clear-groups")
    return ["setpriv", *map(str, identity), "--pdeathsig", "KILL"]


class Program:
    """A child process whose output is read as it comes, by a thread that calls on_output for each
    line.

    It is killed when we end for any reason. Started by the main thread only, because it is tied to
    the thread that starts it (prctl(2), PR_SET_PDEATHSIG). It runs in a separate session, so that a
    Ctrl-C that is meant for us does not reach it.

    namespace   the network namespace in which it runs; by default that of its caller
    user        the number of the user as whom it runs; by default that of its caller
    log         a file for its output and its errors, which no thread reads then
    on_end      called with the program, by another thread, when it has ended
    """

    def __init__(
        self,
        arguments,
        name=None,
        *,
        namespace=None,
        user=None,
        environment=None,
        has_input=False,
        reads_errors=True,
        log=None,
        on_output=None,
        on_end=None,
    ):
        assert threading.current_thread() is threading.main_thread()
        self.name = name or os.path.basename(arguments[0])
        # Set by us before we end it.
        self.is_ending = False
        self._readers = []
        with contextlib.ExitStack() as stack:
            stack.enter_context(namespace or contextlib.nullcontext())
            written = stack.enter_context(open(log, "wb")) if log else subprocess.PIPE
            self.process = subprocess.Popen(
                [*as_user(user), *arguments],
                stdin=subprocess.PIPE if has_input else subprocess.DEVNULL,
                stdout=written,
                stderr=subprocess.STDOUT if log else subprocess.PIPE,
                text=True,
                errors="replace",
                env=environment,
                start_new_session=True,
            )
        if log:
            self.output = self.errors = FileLines(log, lambda: self.process.poll() is not None)
        else:
            self.output = Lines()
            self.errors = Lines()
            self._read(self.process.stdout, self.output, on_output)
            if reads_errors:
                self.read_errors()
        if on_end:
            threading.Thread(target=self._watch, args=(on_end,), daemon=True).start()

    def read_errors(self):
        """Reads standard error from now on, for a program that was started without reading it."""
        self._read(self.process.stderr, self.errors)

    def _read(self, stream, lines, on_line=None):
        def read():
            with stream:
                for line in stream:
                    line = line.rstrip("\n")
                    if on_line:
                        on_line(line)
                    lines.append(line)
            lines.close()

        reader = threading.Thread(target=read, daemon=True)
        reader.start()
        self._readers.append(reader)

    def _watch(self, on_end):
        self.process.wait()
        on_end(self)

    @property
    def pid(self):
        return self.process.pid

    def tell(self, line):
        """Writes a line to its standard input."""
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def expect(self, lines, text, mark=0):
        """Waits for a line that contains text and returns it; it is a Problem if none comes."""
        line = lines.wait(lambda line: text in line, mark)
        if line is None:
            raise self._problem(f"did not say \"{text}\"")
        return line

    def _problem(self, otherwise):
        """Why it did not do what it should: its own last words, if it has ended."""
        try:
            status = self.wait(1)
        except subprocess.TimeoutExpired:
            self.kill()
            return Problem(f"{self.name} {otherwise}")
        words = [line for line in self.errors.since() if line.strip()]
        if status == 2 and words:
            return Problem(words[-1], 2)
        return Problem(f"{self.name} {self.ending()}" + "".join(f"\n  {word}" for word in words))

    def ending(self):
        """How it has ended, in words."""
        status = self.process.returncode
        if status is not None and status < 0:
            return f"was ended by {signal.Signals(-status).name}"
        return f"ended with status {status}"

    def send_signal(self, number):
        self.process.send_signal(number)

    def wait(self, seconds=GENEROUS_SECONDS):
        """Waits until it has ended and all its output has arrived; returns its status."""
        status = self.process.wait(seconds)
        for reader in self._readers:
            reader.join(GENEROUS_SECONDS)
        if self.process.stdin:
            self.process.stdin.close()
        return status

    def kill(self):
        """As a crash would end it."""
        self.is_ending = True
        self.process.kill()
        self.wait()

    def stop(self, number=signal.SIGTERM, seconds=GENEROUS_SECONDS):
        """Asks it to end and waits for it; returns its status. It is killed if it does not."""
        self.is_ending = True
        self.send_signal(number)
        try:
            return self.wait(seconds)
        except subprocess.TimeoutExpired:
            self.kill()
            return self.process.returncode

    def close(self):
        """Kills it if it is still running, even if it is stopped by a signal."""
        if self.process.poll() is None:
            self.kill()
