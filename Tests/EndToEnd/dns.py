"""A DNS server for tests, and an application that asks one and then connects."""

import ipaddress
import socket
import struct
import threading

A, CNAME, AAAA = 1, 5, 28


def encode_name(name):
    labels = [label.encode() for label in name.split(".") if label]
    return b"".join(bytes([len(label)]) + label for label in labels) + b"\0"


def read_name(message, at):
    labels = []
    while size := message[at]:
        labels.append(message[at + 1 : at + 1 + size].decode())
        at += 1 + size
    return ".".join(labels).lower(), at + 1


def encode_record(owner, kind, ttl, data):
    return encode_name(owner) + struct.pack("!HHIH", kind, 1, ttl, len(data)) + data


class Resolver:
    """Answers queries for addresses on port 53, over UDP and TCP.

    hosts: names with their addresses, or with another name, which is an alias. Each value may also
    be a function that is called for each query.
    """

    def __init__(self, namespace, address, hosts, ttl=300):
        self.hosts = hosts
        self._ttl = ttl
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        with namespace:
            self._udp = socket.socket(family, socket.SOCK_DGRAM)
            self._udp.bind((address, 53))
            self._tcp = socket.create_server((address, 53), family=family)
        threading.Thread(target=self._serve_udp, daemon=True).start()
        threading.Thread(target=self._serve_tcp, daemon=True).start()

    def _records(self, name, kind):
        records = b""
        count = 0
        while True:
            found = self.hosts.get(name, [])
            if callable(found):
                found = found()
            if not isinstance(found, str):
                break
            records += encode_record(name, CNAME, self._ttl, encode_name(found))
            count += 1
            name = found
        version = 4 if kind == A else 6
        for address in map(ipaddress.ip_address, found):
            if address.version == version and kind in (A, AAAA):
                records += encode_record(name, kind, self._ttl, address.packed)
                count += 1
        return count, records

    def answer(self, query):
        name, end = read_name(query, 12)
        kind = struct.unpack_from("!H", query, end)[0]
        count, records = self._records(name, kind)
        header = query[:2] + struct.pack("!HHHHH", 0x8180, 1, count, 0, 0)
        return header + query[12 : end + 4] + records

    def _serve_udp(self):
        while True:
            try:
                query, peer = self._udp.recvfrom(4096)
            except OSError:
                return
            if not query:
                return
            self._udp.sendto(self.answer(query), peer)

    def _serve_tcp(self):
        while True:
            try:
                connection, _ = self._tcp.accept()
            except OSError:
                return
            with connection:
                size = struct.unpack("!H", connection.recv(2, socket.MSG_WAITALL))[0]
                answer = self.answer(connection.recv(size, socket.MSG_WAITALL))
                # In two segments.
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                message = struct.pack("!H", len(answer)) + answer
                connection.sendall(message[:20])
                connection.sendall(message[20:])

    def close(self):
        for each in (self._udp, self._tcp):
            try:
                each.shutdown(socket.SHUT_RDWR)
            except OSError:
                # Not connected; it wakes the thread nevertheless.
                pass
            each.close()


# Arguments: server, udp or tcp, name, address, port. Looks the name up, connects to the address, and
# prints its own port and what the origin has said. The answer need not contain the address. The
# asking socket stays open, so that its application can be found however late, and with a further
# argument the process as well.
APPLICATION = r"""
import socket, struct, sys

server, way, name, address, port = sys.argv[1:6]
kind = 28 if ":" in address else 1
if name:
    labels = b"".join(bytes([len(each)]) + each.encode() for each in name.split("."))
    query = struct.pack("!HHHHHH", 4711, 0x100, 1, 0, 0, 0) + labels + struct.pack("!BHH", 0, kind, 1)
    family = socket.AF_INET6 if ":" in server else socket.AF_INET
    asking = socket.socket(family, socket.SOCK_STREAM if way == "tcp" else socket.SOCK_DGRAM)
    asking.settimeout(10)
    asking.connect((server, 53))
    if way == "tcp":
        asking.sendall(struct.pack("!H", len(query)) + query)
        # Not MSG_WAITALL, which does not wait on a socket with a timeout.
        answer = asking.makefile("rb")
        answer.read(struct.unpack("!H", answer.read(2))[0])
    else:
        asking.send(query)
        asking.recv(4096)
connection = socket.create_connection((address, int(port)), timeout=10)
connection.sendall(b"GET / HTTP/1.0\r\n\r\n")
received = b""
while part := connection.recv(4096):
    received += part
print(connection.getsockname()[1], received.partition(b"\r\n\r\n")[2].decode().strip(), flush=True)
if sys.argv[6:]:
    sys.stdin.read()
"""
