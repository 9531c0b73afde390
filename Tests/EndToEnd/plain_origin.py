"""Origin servers for thousands of connections.

    plain_origin.py peer PORT      sends the address and port that it sees, and closes
    plain_origin.py stream PORT    sends endlessly, as fast as the other end reads
    plain_origin.py hold PORT      sends nothing and holds the connection
    plain_origin.py echo PORT      sends back what it receives, at most a few bytes at a time
"""

import resource
import selectors
import socket
import sys

ZEROES = bytes(1 << 14)


def main():
    mode, port = sys.argv[1], int(sys.argv[2])
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    listener = socket.create_server(
        ("::", port), family=socket.AF_INET6, dualstack_ipv6=True, backlog=4096
    )
    print("listening", flush=True)
    {"peer": tell_peers, "stream": stream, "hold": hold, "echo": echo}[mode](listener)


def tell_peers(listener):
    while True:
        connection, address = listener.accept()
        with connection:
            host = address[0].removeprefix("::ffff:")
            try:
                connection.sendall(f"{host} {address[1]}\n".encode())
            except OSError:
                # The application has gone.
                pass


def ready(listener, event):
    """Yields each connection when it is ready for the event, and the selector that it is in."""
    selector = selectors.EpollSelector()
    listener.setblocking(False)
    selector.register(listener, selectors.EVENT_READ)
    while True:
        for key, _ in selector.select():
            if key.fileobj is listener:
                connection, _ = listener.accept()
                connection.setblocking(False)
                selector.register(connection, event)
            else:
                yield selector, key.fileobj


def stream(listener):
    # Only little unread data may wait in the kernel.
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 14)
    for selector, connection in ready(listener, selectors.EVENT_WRITE):
        try:
            connection.send(ZEROES)
        except BlockingIOError:
            pass
        except OSError:
            selector.unregister(connection)
            connection.close()


def hold(listener):
    held = []
    while True:
        held.append(listener.accept()[0])


def echo(listener):
    for selector, connection in ready(listener, selectors.EVENT_READ):
        try:
            received = connection.recv(4096)
            # Its reader waits for it, so it fits.
            if received and connection.send(received) == len(received):
                continue
        except OSError:
            pass
        selector.unregister(connection)
        connection.close()


if __name__ == "__main__":
    main()
