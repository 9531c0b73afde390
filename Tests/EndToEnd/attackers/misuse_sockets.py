"""Misuses sockets as fast as one process can.

    misuse_sockets.py MODE HOST PORT

HOST answers, and so do the hosts of 198.18.0.0/16. MODE is a function below.
"""

import os
import random
import resource
import socket
import struct
import sys
import time

RESET = struct.pack("ii", 1, 0)


def some_host():
    return f"198.18.{random.randrange(256)}.{random.randrange(1, 255)}"


def connect(made, host, port):
    try:
        made.connect_ex((host, port))
    except OSError:
        # Refused locally, for example for lack of ports.
        pass


def give_up(host, port):
    """Closes each socket before its connection can have been decided."""
    while True:
        with socket.socket() as made:
            made.setblocking(False)
            connect(made, host, port)


def give_up_hosts(_, port):
    """The same, with a new host each time."""
    while True:
        with socket.socket() as made:
            made.setblocking(False)
            connect(made, some_host(), port)


def reset_connections(host, port):
    """Resets each connection as soon as it is established."""
    while True:
        with socket.socket() as made:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
            connect(made, host, port)


def end_processes(host, port):
    """Each connection is begun by a separate process, which has ended when it is searched for."""
    at_once = 20
    while True:
        for _ in range(at_once):
            if os.fork() == 0:
                made = socket.socket()
                made.setblocking(False)
                connect(made, host, port)
                os._exit(0)
        for _ in range(at_once):
            os.wait()


def share_a_port(_, port):
    """All connections have the same source, one after the other."""
    while True:
        with socket.socket() as made:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            made.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
            made.setblocking(False)
            made.bind(("0.0.0.0", 9999))
            connect(made, some_host(), port)


def send_datagrams(*_):
    """To the port of QUIC, from few sockets to many hosts; each is refused."""
    while True:
        with socket.socket(type=socket.SOCK_DGRAM) as made:
            for _ in range(200):
                try:
                    made.sendto(bytes(100), (some_host(), 443))
                except OSError:
                    pass


def send_datagrams_from_a_shared_port(*_):
    """As many sockets as possible have the same address and port, which makes finding one slow."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    sockets = []
    for _ in range(min(most - 100, 9000)):
        made = socket.socket(type=socket.SOCK_DGRAM)
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        made.bind(("0.0.0.0", 9999))
        sockets.append(made)
    while True:
        for made in sockets:
            try:
                made.sendto(bytes(100), (some_host(), 443))
            except OSError:
                pass


def connect_to_listeners(*_):
    """To every listener on this machine."""
    while True:
        with open("/proc/net/tcp") as sockets:
            entries = [line.split() for line in list(sockets)[1:]]
        for entry in entries:
            # Local address and state (proc(5)); 0A is a listener.
            if entry[3] == "0A":
                with socket.socket() as made:
                    made.setblocking(False)
                    connect(made, "127.0.0.1", int(entry[1].partition(":")[2], 16))
        time.sleep(0.01)


MODES = {
    mode.__name__: mode
    for mode in (
        give_up, give_up_hosts, reset_connections, end_processes, share_a_port, send_datagrams,
        send_datagrams_from_a_shared_port, connect_to_listeners,
    )
}  # fmt: skip


if __name__ == "__main__":
    print("attacking", flush=True)
    MODES[sys.argv[1]](sys.argv[2], int(sys.argv[3]))
