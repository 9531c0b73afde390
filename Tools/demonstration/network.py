"""The private network of the demonstration: applications here, origin servers there.

It lives in a network and a mount namespace that this process makes for itself. Nothing of it is
visible outside, but for an empty folder that serves as a mount point and is removed at the end; the
kernel takes everything else away together with the namespaces.
"""

import ctypes
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

from programs import GENEROUS_SECONDS, Problem, Program

# Addresses that are set aside for documentation (RFC 5737, RFC 3849).
HERE4, HERE6 = "198.51.100.1", "2001:db8::1"
THERE4, THERE6 = "198.51.100.10", "2001:db8::10"
NAME = "origin.example"

# One that the built-in list leaves alone.
EXEMPT_IDENTIFIER = "com.mullvad.vpn"

# A person who ends us, or whose terminal goes away.
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

# See unshare(2).
CLONE_NEWNS = 0x00020000
CLONE_NEWNET = 0x40000000


def namespace_of(process):
    """The network namespace of a process; None when it is gone."""
    try:
        return os.readlink(f"/proc/{process}/ns/net")
    except OSError:
        return None


def unshare():
    """Moves this process into namespaces of its own."""
    before = namespace_of("self")
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNET | CLONE_NEWNS) != 0:
        raise Problem(f"no namespaces can be made: {os.strerror(ctypes.get_errno())}", 2)
    # What ends the demonstration ends every process of the new namespace: it must be a new one.
    if before is None or namespace_of("self") in (None, before):
        raise Problem("the namespaces are not new")
    run("mount", "--make-rprivate", "/")


def run(*arguments, **options):
    done = subprocess.run(
        arguments, capture_output=True, text=True, timeout=GENEROUS_SECONDS, check=False, **options
    )
    if done.returncode != 0:
        reason = (done.stderr or done.stdout).strip().splitlines() or ["no reason given"]
        raise Problem(f"{arguments[0]}: {reason[-1]} ({' '.join(arguments)})")
    return done.stdout


class Network:
    """Set up by the constructor, taken down by close(), also when the constructor fails.

    Made once in a process, before it has any other thread.
    """

    def __init__(self):
        unshare()
        self.namespaces = {namespace_of("self")}
        # The other one, kept open: the kernel gives the number of a namespace that is gone to the
        # next new one, and the processes in that are not ours to end.
        self._there = None
        self.folder = tempfile.mkdtemp(prefix="ostravel-run-", dir="/tmp")
        try:
            self._mount()
            self._write_files()
            self._connect()
        except BaseException:
            self.close()
            raise

    def path(self, name):
        return os.path.join(self.folder, name)

    @property
    def socket(self):
        return self.path("monitoring.sock")

    @property
    def configuration(self):
        return self.path("provider-configuration.json")

    @property
    def certificate(self):
        return self.path("certificate.pem")

    @property
    def exempt_curl(self):
        return self.path("vpn-client")

    def environment(self):
        """For applications: nothing of the machine's own proxy settings, and our certificate."""
        kept = {
            name: value
            for name, value in os.environ.items()
            if not name.lower().endswith("_proxy") and name not in ("CURL_HOME", "SSL_CERT_DIR")
        }
        return kept | {"CURL_CA_BUNDLE": self.certificate, "SSL_CERT_FILE": self.certificate}

    def _mount(self):
        run("mount", "-t", "tmpfs", "-o", "mode=755", "ostravel", self.folder)
        # An /etc of our own, the machine's but for what concerns names and this system.
        etc = self.path("etc")
        os.mkdir(etc)
        run("mount", "--rbind", "/etc", etc)
        run("mount", "-t", "tmpfs", "-o", "mode=755", "ostravel", "/etc")
        for entry in os.listdir(etc):
            if entry not in ("ostravel", "hosts", "nsswitch.conf", "resolv.conf"):
                os.symlink(os.path.join(etc, entry), os.path.join("/etc", entry))

    def _write_files(self):
        pathlib.Path("/etc/hosts").write_text(
            "127.0.0.1 localhost\n"
            "::1 localhost\n"
            f"{THERE4} {NAME}\n"
            f"{THERE6} {NAME}\n"
        )
        pathlib.Path("/etc/nsswitch.conf").write_text("passwd: files\ngroup: files\nhosts: files\n")
        # An application is registered by its path, in a file that only root can write.
        shutil.copy("/usr/bin/curl", self.exempt_curl)
        registrations = pathlib.Path("/etc/ostravel/applications.d")
        registrations.mkdir(parents=True, mode=0o755)
        demo = registrations / "demo.json"
        demo.write_text(json.dumps({self.exempt_curl: EXEMPT_IDENTIFIER}) + "\n")
        demo.chmod(0o644)
        pathlib.Path(self.configuration).write_text(
            json.dumps({"monitoringSocketPath": self.socket}) + "\n"
        )
        run(
            "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
            "-nodes", "-days", "2", "-subj", f"/CN={NAME}",
            "-addext", f"subjectAltName=DNS:{NAME},IP:{THERE4},IP:{THERE6}",
            "-keyout", self.path("key.pem"), "-out", self.certificate,
        )  # fmt: skip

    def _connect(self):
        origin = os.path.join(os.path.dirname(os.path.abspath(__file__)), "origin.py")
        self.origin = Program(
            ["unshare", "--net", sys.executable, origin, "--name", "there",
             "--certificate", self.certificate, "--key", self.path("key.pem")],
            stdin=subprocess.PIPE,
        )  # fmt: skip
        self.origin.name = "the origin server there"
        self._enable_ipv6()
        run("ip", "link", "set", "lo", "up")
        self.origin.expect(self.origin.output, "waiting")
        self._there = os.open(f"/proc/{self.origin.pid}/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        self.namespaces.add(os.readlink(f"/proc/self/fd/{self._there}"))
        run("ip", "link", "add", "here", "type", "veth", "peer", "name", "there",
            "netns", str(self.origin.pid))  # fmt: skip
        self._set_up("here", HERE4, HERE6)
        self._set_up("there", THERE4, THERE6, "nsenter", f"--net=/proc/{self.origin.pid}/ns/net")
        self.origin.process.stdin.write("\n")
        self.origin.process.stdin.flush()
        self.origin.expect(self.origin.output, "ready")

        self.loopback = Program([sys.executable, origin, "--loopback", "--name", "localhost"])
        self.loopback.name = "the server on the loopback address"
        self.loopback.expect(self.loopback.output, "ready")

    def _enable_ipv6(self):
        for part in ("all", "default"):
            setting = pathlib.Path(f"/proc/sys/net/ipv6/conf/{part}/disable_ipv6")
            try:
                if setting.read_text().strip() != "0":
                    setting.write_text("0\n")
            except OSError:
                # Read-only in some containers, where IPv6 then is as it is.
                pass

    def _set_up(self, interface, ipv4, ipv6, *prefix):
        run(*prefix, "ip", "addr", "add", f"{ipv4}/24", "dev", interface)
        # Usable at once: nobody else can have the address.
        run(*prefix, "ip", "addr", "add", f"{ipv6}/64", "dev", interface, "nodad")
        run(*prefix, "ip", "link", "set", interface, "up")

    def close(self):
        os.chdir("/")
        self._end_processes()
        if self._there is not None:
            os.close(self._there)
        for mount in ("/etc", self.path("etc"), self.folder):
            subprocess.run(["umount", "--lazy", mount], stderr=subprocess.DEVNULL, check=False)
        os.rmdir(self.folder)

    def _end_processes(self):
        """Ends every process in our namespaces: all of them belong to the demonstration."""
        self.namespaces.discard(None)
        while True:
            found = [
                int(name)
                for name in os.listdir("/proc")
                if name.isdigit()
                and int(name) != os.getpid()
                and namespace_of(name) in self.namespaces
            ]
            if not found:
                return
            for pid in found:
                try:
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, 0)
                except (ProcessLookupError, ChildProcessError):
                    # Gone already, or the child of another one of them.
                    pass
