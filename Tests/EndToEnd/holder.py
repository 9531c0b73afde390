"""An application that keeps many connections open for long and checks that their bytes come back.

    holder.py HOST PORT --count 9500 --churn 950

The origin (plain_origin.py echo) sends back what it gets. CHURN connections a minute, chosen at random, send
a text, get it back, and are replaced by new ones; so every connection carries bytes after a random age.

A line on standard input asks for a report: one JSON object about everything since the start. "end" closes all
connections after it.
"""

import argparse
import errno
import json
import os
import random
import resource
import selectors
import socket
import sys
import time

EXCHANGE_SECONDS = 15
# At most this many are being established at a time, so that no backlog is full.
AT_ONCE = 32


class Holder:
    def __init__(self, host, port, count, churn, seed):
        self._target = (host, port)
        self._wanted = count
        self._interval = 60 / churn
        self._random = random.Random(seed)
        self._held = []
        self._selector = selectors.EpollSelector()
        self._selector.register(sys.stdin.fileno(), selectors.EVENT_READ)
        self._is_ending = False
        self.exchanged = 0
        self.failed = {}

    def run(self):
        due = time.monotonic()
        print("running", flush=True)
        is_full = False
        while not self._is_ending:
            while len(self._held) < self._wanted and not self._is_ending:
                self._establish(min(AT_ONCE, self._wanted - len(self._held)))
                self._obey(0)
            if not is_full:
                is_full = True
                print("full", flush=True)
                due = time.monotonic()
            if time.monotonic() >= due:
                due += self._interval
                self._replace()
            else:
                self._obey(min(1, due - time.monotonic()))
        for connection in self._held:
            connection.close()

    def _establish(self, count):
        for connection in [self._connect() for _ in range(count)]:
            if connection is not None and self._exchange(connection):
                self._held.append(connection)

    def _connect(self):
        try:
            return socket.create_connection(self._target, timeout=EXCHANGE_SECONDS)
        except OSError as failure:
            self._fail(failure)
            return None

    def _exchange(self, connection):
        text = self._random.randbytes(64)
        try:
            connection.sendall(text)
            received = b""
            while len(received) < len(text):
                more = connection.recv(len(text) - len(received))
                if not more:
                    break
                received += more
        except OSError as failure:
            self._fail(failure)
            connection.close()
            return False
        if received != text:
            name = "WRONG" if len(received) == len(text) else "ENDED"
            self.failed[name] = self.failed.get(name, 0) + 1
            connection.close()
            return False
        self.exchanged += 1
        return True

    def _replace(self):
        index = self._random.randrange(len(self._held))
        self._held[index], self._held[-1] = self._held[-1], self._held[index]
        connection = self._held.pop()
        if self._exchange(connection):
            connection.close()

    def _fail(self, failure):
        name = errno.errorcode.get(failure.errno, type(failure).__name__)
        self.failed[name] = self.failed.get(name, 0) + 1

    def _obey(self, seconds):
        if not self._selector.select(seconds):
            return
        words = os.read(sys.stdin.fileno(), 1024).split()
        self._is_ending = not words or b"end" in words
        print(
            json.dumps(
                {"held": len(self._held), "exchanged": self.exchanged, "failed": self.failed}
            ),
            flush=True,
        )


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("--count", type=int, required=True)
    parser.add_argument("--churn", type=float, required=True, help="replaced in a minute")
    parser.add_argument("--seed", type=int, default=0)
    arguments = parser.parse_args()
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    Holder(arguments.host, arguments.port, arguments.count, arguments.churn, arguments.seed).run()


if __name__ == "__main__":
    main()
