"""Origin servers in this process, for tests that need to observe or act themselves."""

import socket
import threading


class Origin:
    """Listens on a port of a namespace and serves each connection with a thread.

    serve(connection, peer) is called for each connection, which is closed afterwards; without it
    connections are accepted and held. Without an address it listens on all of them, of both
    families.
    """

    def __init__(self, namespace, port, serve, address=None):
        self._serve = serve
        self._connections = set()
        self._lock = threading.Lock()
        with namespace:
            if address is None:
                self._listener = socket.create_server(
                    ("::", port), family=socket.AF_INET6, dualstack_ipv6=True, backlog=1024
                )
            else:
                family = socket.AF_INET6 if ":" in address else socket.AF_INET
                self._listener = socket.create_server((address, port), family=family, backlog=1024)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                connection, address = self._listener.accept()
            except OSError:
                return
            with self._lock:
                self._connections.add(connection)
            if self._serve is None:
                continue
            peer = (address[0].removeprefix("::ffff:"), address[1])
            threading.Thread(target=self._run, args=(connection, peer), daemon=True).start()

    def _run(self, connection, peer):
        try:
            self._serve(connection, peer)
        except OSError:
            # The other end may behave in any way; the test checks what it expects.
            pass
        finally:
            with self._lock:
                self._connections.discard(connection)
            connection.close()

    def close(self):
        # A thread in accept(2) is not woken by close(2).
        try:
            self._listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._listener.close()
        with self._lock:
            for connection in self._connections:
                try:
                    connection.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
                if self._serve is None:
                    connection.close()


def receive_header(connection):
    header = b""
    while b"\r\n\r\n" not in header:
        received = connection.recv(4096)
        if not received:
            break
        header += received
    return header


def tell_peer(connection, peer):
    """Answers an HTTP request with the address and port that it seems to come from."""
    if not receive_header(connection):
        return
    body = f"{peer[0]} {peer[1]}\n".encode()
    connection.sendall(
        b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body)
    )


class DatagramEcho:
    """Sends every datagram back and records its source."""

    def __init__(self, namespace, port, address="::"):
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self.peers = []
        with namespace:
            self._socket = socket.socket(family, socket.SOCK_DGRAM)
        if family == socket.AF_INET6:
            self._socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
        self._socket.bind((address, port))
        # A thread in recvfrom(2) is not woken by close(2).
        self._socket.settimeout(0.2)
        self._is_open = True
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while self._is_open:
            try:
                datagram, address = self._socket.recvfrom(2048)
            except TimeoutError:
                continue
            self.peers.append((address[0].removeprefix("::ffff:"), address[1]))
            self._socket.sendto(datagram, address)
        self._socket.close()

    def close(self):
        self._is_open = False
        self._thread.join()
