"""An HTTP origin server for transfers in which every byte is checked.

GET /SEED/LENGTH sends that part of the pattern; a PUT there checks the body and returns the result.
"""

import http.server
import io
import socket
import sys

import pattern


class ChunkedBody(io.RawIOBase):
    """The content of a chunked body (RFC 9112, section 7.1)."""

    def __init__(self, stream):
        self._stream = stream
        self._left = 0
        self._has_ended = False

    def readinto(self, buffer):
        if self._has_ended:
            return 0
        if self._left == 0:
            self._left = int(self._stream.readline().split(b";")[0], 16)
            if self._left == 0:
                self._has_ended = True
                self._stream.readline()
                return 0
        count = self._stream.readinto(buffer[: self._left])
        if not count:
            raise ConnectionError("the body ended within a chunk")
        self._left -= count
        if self._left == 0:
            self._stream.readline()
        return count


class SizedBody(io.RawIOBase):
    def __init__(self, stream, size):
        self._stream = stream
        self._left = size

    def readinto(self, buffer):
        count = self._stream.readinto(buffer[: self._left]) if self._left else 0
        self._left -= count
        return count


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        seed, length = self._numbers()
        self.send_response(200)
        self.send_header("Content-Length", str(length))
        self.end_headers()
        for piece in pattern.pieces(seed, length):
            self.connection.sendall(piece)

    def do_PUT(self):
        seed, _ = self._numbers()
        if self.headers.get("Transfer-Encoding") == "chunked":
            body = ChunkedBody(self.rfile)
        else:
            body = SizedBody(self.rfile, int(self.headers["Content-Length"]))
        checker = pattern.Checker(seed)
        checker.feed_from(body)
        answer = (checker.verdict() + "\n").encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def _numbers(self):
        seed, length = self.path.strip("/").split("/")
        return int(seed), int(length)

    def log_message(self, format, *arguments):
        pass


class Server(http.server.ThreadingHTTPServer):
    address_family = socket.AF_INET6
    daemon_threads = True
    request_queue_size = 1024

    def server_bind(self):
        self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind(self.server_address)


if __name__ == "__main__":
    server = Server(("::", int(sys.argv[1])), Handler)
    print("listening", flush=True)
    server.serve_forever()
