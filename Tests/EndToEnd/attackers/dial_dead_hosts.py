"""Keeps a hundred connections pending to hosts that never answer.

    dial_dead_hosts.py PREFIX PORT [--count 100]

PREFIX is the beginning of an address: with 203.0.113. the first host is 203.0.113.1. A connection
that has ended, or that is older than a deadline would be, is replaced by a new one at once.
"""

import argparse
import selectors
import socket
import sys
import time

# A little longer than any connection is held.
PATIENCE_SECONDS = 6


def dial(host, port):
    dialled = socket.socket()
    dialled.setblocking(False)
    dialled.connect_ex((host, port))
    return dialled


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("prefix")
    parser.add_argument("port", type=int)
    parser.add_argument("--count", type=int, default=100)
    arguments = parser.parse_args()
    selector = selectors.EpollSelector()
    begun_at = {}
    hosts = [f"{arguments.prefix}{number + 1}" for number in range(arguments.count)]

    def begin(host):
        dialled = dial(host, arguments.port)
        selector.register(dialled, selectors.EVENT_WRITE, host)
        begun_at[dialled] = time.monotonic()

    def end(dialled):
        selector.unregister(dialled)
        del begun_at[dialled]
        dialled.close()

    for host in hosts:
        begin(host)
    print("attacking", flush=True)
    while True:
        for key, _ in selector.select(0.2):
            end(key.fileobj)
            begin(key.data)
        oldest = time.monotonic() - PATIENCE_SECONDS
        for dialled in [each for each, begun in begun_at.items() if begun < oldest]:
            host = selector.get_key(dialled).data
            end(dialled)
            begin(host)


if __name__ == "__main__":
    sys.exit(main())
