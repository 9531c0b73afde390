"""The origin servers of the demonstration: what applications connect to.

Each HTTP answer says from which address and port the connection came, so that an application can
tell whether it was its own.
"""

import argparse
import http.server
import socket
import ssl
import threading


class Handler(http.server.BaseHTTPRequestHandler):
    timeout = 30

    def do_GET(self):
        address, port = self.client_address[:2]
        address = address.removeprefix("::ffff:")
        body = f"hello from {self.server.name}: you are {address}, port {port}\n".encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format, *arguments):
        pass


class Server(http.server.ThreadingHTTPServer):
    address_family = socket.AF_INET6
    # Do not wait for threads whose clients are still connected.
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, address, port, name, context=None):
        self.name = name
        self.context = context
        super().__init__((address, port), Handler)

    def server_bind(self):
        self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind(self.server_address)

    def get_request(self):
        connection, address = self.socket.accept()
        if self.context:
            # The handshake is done by the thread that answers, not by the one that accepts.
            connection = self.context.wrap_socket(
                connection, server_side=True, do_handshake_on_connect=False
            )
        return connection, address

    def shutdown_request(self, request):
        if self.context:
            try:
                # Announces the end of the stream (RFC 8446, section 6.1).
                request.unwrap()
            except (OSError, ValueError):
                pass
        super().shutdown_request(request)

    def handle_error(self, request, client_address):
        # A client that has gone away.
        pass


def bind_datagrams(port):
    sock = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
    sock.bind(("::", port))
    return sock


def answer_datagrams(sock):
    while True:
        datagram, address = sock.recvfrom(2048)
        sock.sendto(datagram, address)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--name", required=True)
    parser.add_argument("--loopback", action="store_true")
    parser.add_argument("--certificate")
    parser.add_argument("--key")
    options = parser.parse_args()

    if options.loopback:
        servers = [Server("::ffff:127.0.0.1", 11434, options.name)]
    else:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(options.certificate, options.key)
        servers = [Server("::", port, options.name) for port in (80, 11434)]
        servers.append(Server("::", 443, options.name, context))
        datagrams = bind_datagrams(443)
        threading.Thread(target=answer_datagrams, args=(datagrams,), daemon=True).start()
    for server in servers[1:]:
        threading.Thread(target=server.serve_forever, daemon=True).start()
    print("ready", flush=True)
    servers[0].serve_forever()


if __name__ == "__main__":
    main()
