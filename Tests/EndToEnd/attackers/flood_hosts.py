"""Connects to 1,500 hosts a second, to each of them once.

    flood_hosts.py PORT [--rate 1500]

The hosts are those of 198.18.0.0/15.
"""

import argparse
import collections
import ipaddress
import selectors
import socket
import struct
import time

NETWORK = ipaddress.ip_network("198.18.0.0/15")
AT_ONCE = 1000
# Neither end may enter TIME-WAIT.
RESET = struct.pack("ii", 1, 0)


def dial(host, port):
    dialled = socket.socket()
    dialled.setblocking(False)
    dialled.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
    dialled.connect_ex((host, port))
    return dialled


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("port", type=int)
    parser.add_argument("--rate", type=float, default=1500)
    arguments = parser.parse_args()
    selector = selectors.EpollSelector()
    pending = collections.OrderedDict()
    first = int(NETWORK.network_address)
    number = 0
    due = time.monotonic()
    print("attacking", flush=True)
    while True:
        now = time.monotonic()
        # Overdue connections are skipped.
        due = max(due, now - 0.1)
        while due <= now:
            due += 1 / arguments.rate
            number = number % (NETWORK.num_addresses - 2) + 1
            if len(pending) == AT_ONCE:
                oldest, _ = pending.popitem(last=False)
                selector.unregister(oldest)
                oldest.close()
            dialled = dial(str(ipaddress.IPv4Address(first + number)), arguments.port)
            selector.register(dialled, selectors.EVENT_WRITE)
            pending[dialled] = None
        for key, _ in selector.select(max(due - time.monotonic(), 0)):
            selector.unregister(key.fileobj)
            del pending[key.fileobj]
            key.fileobj.close()


if __name__ == "__main__":
    main()
