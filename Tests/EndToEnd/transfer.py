"""An application that transfers much and checks every byte: an HTTP client of pattern_origin.py.

    transfer.py HOST PORT --gigabytes 10

One connection downloads and another one uploads at the same time, at most a GiB each, again and again until they
have transferred so much together. Prints one JSON object: the exact bytes, what went wrong, and the number of
connections.
"""

import argparse
import http.client
import json
import threading

import pattern


class Transfers:
    def __init__(self, host, port, size):
        self._target = (host, port)
        self._left = size
        # So that both directions have some.
        self._most = min(pattern.GIB, size // 4 + 1)
        self._lock = threading.Lock()
        self.exact = 0
        self.connections = 0
        self.wrong = []

    def run(self):
        threads = [threading.Thread(target=self._repeat, args=(each,)) for each in (_download, _upload)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def _repeat(self, transfer):
        seed = 0
        while not self.wrong and (size := self._take()):
            seed += 7919
            try:
                connection = http.client.HTTPConnection(*self._target, timeout=60)
                verdict = transfer(connection, seed, size)
                connection.close()
            except (OSError, http.client.HTTPException) as failure:
                verdict = repr(failure)
            with self._lock:
                self.connections += 1
                if verdict == f"{size} exact bytes":
                    self.exact += size
                else:
                    self.wrong.append(f"{transfer.__name__.strip('_')} of {size} bytes: {verdict}")

    def _take(self):
        with self._lock:
            size = min(self._most, self._left)
            self._left -= size
            return size


def _download(connection, seed, size):
    connection.request("GET", f"/{seed}/{size}")
    checker = pattern.Checker(seed)
    checker.feed_from(connection.getresponse())
    return checker.verdict()


def _upload(connection, seed, size):
    connection.request(
        "PUT", f"/{seed}/0", pattern.pieces(seed, size), {"Content-Length": str(size)}
    )
    return connection.getresponse().read().decode().strip()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("--gigabytes", type=float, required=True)
    arguments = parser.parse_args()
    transfers = Transfers(arguments.host, arguments.port, int(arguments.gigabytes * 1e9))
    transfers.run()
    told = {
        "exact_bytes": transfers.exact,
        "wrong": transfers.wrong,
        "connections": transfers.connections,
    }
    print(json.dumps(told), flush=True)
