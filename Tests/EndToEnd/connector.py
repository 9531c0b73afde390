"""An application that makes connections at a steady rate and reports how each of them ended.

    connector.py HOST PORT --rate 300 [--at-once N] [--count N]

Connections begin when they are due, independently of earlier ones, unless N of them are
pending. Each reads the line with which the origin (plain_origin.py) names the address and port that
it sees, which shows whether it went through the local proxy. With --at-once 1 connections follow
one another.

A line on standard input asks for a report: one JSON object about everything that has ended since
the last one. "end" begins no new connections, unless a requested count of them is not
complete, waits for pending ones, and makes a last report.
"""

import argparse
import bisect
import collections
import errno
import heapq
import itertools
import json
import math
import os
import resource
import selectors
import socket
import sys
import time

# A connect() that takes longer than this counts as failed. The kernel itself sends a first packet
# again after 1 s and after 3 s.
LIMIT_SECONDS = 15
# An origin that has sent nothing by then will not.
ANSWER_SECONDS = 5
# How an established connection has ended.
RESETS = (errno.ECONNRESET, errno.EPIPE)
SLOW_SECONDS = 1
SHOWN_FAILURES = 5


class Connection:
    __slots__ = ("begun_at", "deadline", "elapsed", "error", "has_ended", "socket", "source")

    def __init__(self, host, port):
        self.begun_at = time.monotonic()
        # Unknown until it is established.
        self.elapsed = None
        self.source = None
        self.has_ended = False
        self.socket = socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET)
        self.socket.setblocking(False)
        self.error = self.socket.connect_ex((host, port))


class Statistics:
    def __init__(self):
        self.began_at = time.time()
        self.times = []
        self.ways = collections.Counter()
        self.failed = collections.Counter()
        self.examples = []

    def fail(self, connection, name):
        self.failed[name] += 1
        if len(self.examples) < SHOWN_FAILURES:
            elapsed = time.monotonic() - connection.begun_at
            self.examples.append(f"{name} after {elapsed:.3f} s")

    def report(self, pending):
        times = sorted(self.times)

        def quantile(part):
            return times[min(len(times) - 1, int(part * len(times)))] if times else 0.0

        return {
            "seconds": time.time() - self.began_at,
            "connections": len(times) + self.failed.total(),
            "pending": pending,
            # Established, by the path they took; "reset": ended before the origin's line came.
            **{way: self.ways[way] for way in ("proxied", "direct", "reset")},
            "failed": dict(self.failed),
            "examples": self.examples,
            "p50": quantile(0.5),
            "p99": quantile(0.99),
            "slow": len(times) - bisect.bisect_right(times, SLOW_SECONDS),
            "slowest": times[-1] if times else 0.0,
        }


class Connector:
    def __init__(self, host, port, rate, at_once, count):
        self._target = (host, port)
        self._interval = 1 / rate
        self._at_once = at_once
        # How many are yet to begin.
        self._left = count
        self._pending = 0
        self._statistics = Statistics()
        self._selector = selectors.EpollSelector()
        self._selector.register(sys.stdin.fileno(), selectors.EVENT_READ)
        self._deadlines = []
        self._order = itertools.count()
        self._is_ending = False

    def run(self):
        due = time.monotonic()
        print("running", flush=True)
        while not (self._is_ending and self._pending == 0 and self._left in (0, math.inf)):
            now = time.monotonic()
            is_wanted = self._left if math.isfinite(self._left) else not self._is_ending
            may_begin = is_wanted and self._pending < self._at_once
            if may_begin and now >= due:
                self._begin()
                # Connections that are overdue do not begin in one burst.
                due = max(due + self._interval, now - 0.1)
                continue
            wait = due - now if may_begin else 1.0
            if self._deadlines:
                wait = min(wait, self._deadlines[0][0] - now)
            for key, events in self._selector.select(max(wait, 0)):
                if key.data is None:
                    self._obey()
                else:
                    self._advance(key.data, events)
            self._give_up()
        self._report()

    def _obey(self):
        words = os.read(sys.stdin.fileno(), 1024).split()
        if not words or b"end" in words:
            self._selector.unregister(sys.stdin.fileno())
            self._is_ending = True
        for _ in range(words.count(b"report")):
            self._report()

    def _report(self):
        print(json.dumps(self._statistics.report(self._pending)), flush=True)
        self._statistics = Statistics()

    def _begin(self):
        connection = Connection(*self._target)
        self._left -= 1
        self._pending += 1
        if connection.error not in (0, errno.EINPROGRESS):
            self._fail(connection, connection.error)
            return
        self._selector.register(connection.socket, selectors.EVENT_WRITE, connection)
        self._limit(connection, connection.begun_at + LIMIT_SECONDS)

    def _limit(self, connection, deadline):
        connection.deadline = deadline
        heapq.heappush(self._deadlines, (deadline, next(self._order), connection))

    def _advance(self, connection, events):
        if connection.has_ended:
            return
        if connection.elapsed is None:
            self._establish(connection)
            return
        try:
            seen = connection.socket.recv(200).decode()
        except BlockingIOError:
            return
        except OSError:
            seen = ""
        self._end(connection, self._way(connection, seen))

    def _establish(self, connection):
        elapsed = time.monotonic() - connection.begun_at
        error = connection.socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        if error not in (0, *RESETS):
            self._fail(connection, error)
            return
        connection.elapsed = elapsed
        self._statistics.times.append(elapsed)
        if error:
            self._end(connection, "reset")
            return
        try:
            connection.source = connection.socket.getsockname()
        except OSError:
            self._end(connection, "reset")
            return
        self._selector.modify(connection.socket, selectors.EVENT_READ, connection)
        self._limit(connection, time.monotonic() + ANSWER_SECONDS)

    @staticmethod
    def _way(connection, seen):
        if not seen.endswith("\n"):
            return "reset"
        address, port = seen.split()
        is_own = (address, int(port)) == connection.source[:2]
        return "direct" if is_own else "proxied"

    def _end(self, connection, way):
        self._statistics.ways[way] += 1
        self._close(connection)

    def _fail(self, connection, number):
        self._statistics.fail(connection, errno.errorcode.get(number, str(number)))
        self._close(connection)

    def _close(self, connection):
        connection.has_ended = True
        self._pending -= 1
        try:
            self._selector.unregister(connection.socket)
        except KeyError:
            pass
        connection.socket.close()

    def _give_up(self):
        now = time.monotonic()
        while self._deadlines and (self._deadlines[0][2].has_ended or self._deadlines[0][0] <= now):
            deadline, _, connection = heapq.heappop(self._deadlines)
            if connection.has_ended or deadline != connection.deadline:
                continue
            if connection.elapsed is None:
                self._statistics.fail(connection, "HUNG")
                self._close(connection)
            else:
                self._end(connection, "reset")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("--rate", type=float, required=True)
    parser.add_argument("--at-once", type=float, default=math.inf)
    parser.add_argument("--count", type=float, default=math.inf)
    arguments = parser.parse_args()
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    target = (arguments.host, arguments.port)
    Connector(*target, arguments.rate, arguments.at_once, arguments.count).run()


if __name__ == "__main__":
    main()
