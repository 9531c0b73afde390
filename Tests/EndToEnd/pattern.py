"""A stream of bytes that both ends can generate from any position.

A byte that is lost, duplicated or misplaced makes the rest of the stream differ.
"""

import random

# A period that no buffer size divides.
_BLOCK = random.Random(20).randbytes((1 << 20) - 3)
_DOUBLE = memoryview(_BLOCK + _BLOCK)

PIECE = 256 * 1024
GIB = 1 << 30


def piece(position, size):
    """size bytes, at most PIECE, of the stream at position."""
    start = position % len(_BLOCK)
    return _DOUBLE[start : start + size]


def pieces(seed, length):
    """The first length bytes of the stream that begins at seed."""
    position = 0
    while position < length:
        size = min(PIECE, length - position)
        yield piece(seed + position, size)
        position += size


class Checker:
    """Compares what arrives with the stream that begins at seed."""

    def __init__(self, seed):
        self._seed = seed
        self.count = 0
        # Where the first difference was, to within a piece.
        self.differs_at = None

    def feed(self, arrived):
        """arrived: a memoryview."""
        while len(arrived) > 0:
            part = arrived[:PIECE]
            # As byte arrays: their comparison is the fast one.
            expected = piece(self._seed + self.count, len(part))
            if self.differs_at is None and bytearray(part) != expected:
                self.differs_at = self.count
            self.count += len(part)
            arrived = arrived[PIECE:]

    def feed_from(self, stream):
        """Everything that a raw or unbuffered stream delivers until its end."""
        buffer = memoryview(bytearray(PIECE))
        while count := stream.readinto(buffer):
            self.feed(buffer[:count])

    def verdict(self):
        if self.differs_at is not None:
            return f"differs after byte {self.differs_at}"
        return f"{self.count} exact bytes"
