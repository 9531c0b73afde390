"""A local CONNECT proxy whose behaviour, good or bad, is set by commands.

Commands come on standard input, one JSON object per line:

  answer      what it answers to a request, text of Latin-1
  then        what it does next: relay, hold, end or reset
  joined      true: waits for the origin's first bytes and sends them in one piece with the answer
  through     port of another local proxy, which makes the tunnels; its answer is passed on
  closes      true: no longer listens from the moment when it is asked for a flow
  pieces      size of the pieces in which the answer is sent, each in a separate packet
  hosts       names that it can resolve, with their addresses
  unresolved  what it answers to a request for any other name, before it ends the connection

A line with null only asks for a report.

What happens is reported on standard output, one JSON object per line. A request is "asked" for a
flow, or "tried" by the extension for itself. Connections are reported when they are accepted, which
happens in the order in which they were made.
"""

import json
import socket
import struct
import sys
import threading
import time

ESTABLISHED = "HTTP/1.1 200 Connection established\r\n\r\n"

behaviour = {}
listener = None
output_lock = threading.Lock()


def report(what, **details):
    line = json.dumps({"what": what, **details})
    with output_lock:
        print(line, flush=True)


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def receive_request(connection):
    # As in origins.py, which this program cannot import: it is copied alone to where it runs.
    request = b""
    while b"\r\n\r\n" not in request:
        received = connection.recv(4096)
        if not received:
            return request
        request += received
    return request


def target_of(request):
    host, _, port = request.split(b" ")[1].decode().rpartition(":")
    return host.strip("[]"), int(port)


def is_unresolved(request, current):
    host = target_of(request)[0]
    is_name = host[-1:].isalpha() and ":" not in host
    return is_name and "unresolved" in current and host not in current.get("hosts", {})


def connect_to_origin(request, current):
    host, port = target_of(request)
    return socket.create_connection((current.get("hosts", {}).get(host, host), port), timeout=30)


def copy(source, sink):
    try:
        while received := source.recv(65536):
            sink.sendall(received)
        sink.shutdown(socket.SHUT_WR)
    except OSError:
        for each in (source, sink):
            try:
                reset(each)
            except OSError:
                pass


def relay(connection, origin):
    origin.settimeout(None)
    back = threading.Thread(target=copy, args=(origin, connection), daemon=True)
    back.start()
    copy(connection, origin)
    back.join()
    origin.close()


def wait_for_end(connection):
    try:
        while connection.recv(65536):
            pass
    except OSError:
        pass


def send_in_pieces(connection, answer, size):
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for start in range(0, len(answer), size):
        connection.sendall(answer[start : start + size])


def serve(connection, current, accepted_at):
    with connection:
        request = receive_request(connection)
        if not request:
            report("probed", accepted_at=accepted_at)
            return
        # A flow has a number; the extension's trial of the proxy has none.
        what = "asked" if b"X-Ostravel-Flow-Id" in request else "tried"
        report(what, request=request.decode("latin-1"), accepted_at=accepted_at)
        if current.get("closes") and what == "asked":
            # While accept() is waiting, closing alone has no effect.
            listener.shutdown(socket.SHUT_RDWR)
            listener.close()
        answer = current.get("answer", ESTABLISHED).encode("latin-1")
        then = current.get("then", "relay")
        origin = None
        if is_unresolved(request, current):
            answer, then = current["unresolved"].encode("latin-1"), "end"
        if "through" in current:
            origin = socket.create_connection(("127.0.0.1", current["through"]))
            origin.sendall(request)
            answer = b""
        elif then == "relay":
            origin = connect_to_origin(request, current)
        if current.get("joined"):
            answer += origin.recv(65536)
        send_in_pieces(connection, answer, current.get("pieces", len(answer) or 1))
        if then == "relay":
            relay(connection, origin)
        elif then == "hold":
            wait_for_end(connection)
            report("ended")
        elif then == "reset":
            reset(connection)


def accept():
    while True:
        try:
            connection, _ = listener.accept()
        except OSError:
            return
        threading.Thread(
            target=serve, args=(connection, behaviour, time.monotonic()), daemon=True
        ).start()


def main():
    global behaviour, listener
    # The behaviour from the first connection on.
    if len(sys.argv) > 1:
        behaviour = json.loads(sys.argv[1])
    listener = socket.create_server(("127.0.0.1", 8080), backlog=1024)
    threading.Thread(target=accept, daemon=True).start()
    report("listening")
    for line in sys.stdin:
        command = json.loads(line)
        if command is None:
            report("listening")
            continue
        behaviour = command
        report("behaving")


if __name__ == "__main__":
    main()
