"""Where the demonstration takes place: a private network, a private /etc, and origin servers.

Nothing of it is visible outside, except for an empty folder that serves as a mount point and is
removed at the end; the kernel removes everything else together with the namespaces.
"""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

from Laboratory.namespace import make_mounts_private
from Laboratory.network import NAME, THERE4, THERE6, Network, environment, key_of, make_certificate
from Laboratory.private_etc import PrivateEtc
from Laboratory.program import Program, run

# One that the built-in list leaves alone.
EXEMPT_IDENTIFIER = "com.mullvad.vpn"

# The user interrupts the job, or closes its terminal.
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Stage:
    """Set up by the constructor, which moves this process onto it; taken down at the end of a with
    statement, and when the constructor fails.

    Made once in a process, by the main thread, before there is any other. From then on, the signals
    that end the process do so in order.
    """

    def __init__(self):
        def end(number, _):
            raise SystemExit(128 + number)

        for each in ENDING_SIGNALS:
            signal.signal(each, end)
        self._network = Network()
        self._network.here.enter()
        make_mounts_private()
        self.folder = tempfile.mkdtemp(prefix="ostravel-run-", dir="/tmp")
        try:
            self._mounts = [self.folder]
            run("mount", "-t", "tmpfs", "-o", "mode=755", "ostravel", self.folder)
            self._etc = PrivateEtc(self.folder)
            self._mounts = ["/etc", self._etc.mount_point, self.folder]
            self._write_files()
            run(*self._etc.command("true"))
            self._start_origins()
        except BaseException:
            self._close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for each in ENDING_SIGNALS:
            signal.signal(each, signal.SIG_IGN)
        self._close()

    def path(self, name):
        return os.path.join(self.folder, name)

    @property
    def socket(self):
        return self.path("monitoring.sock")

    @property
    def configuration(self):
        return self.path("provider-configuration.json")

    @property
    def exempt_curl(self):
        return self.path("vpn-client")

    def environment(self):
        """For applications."""
        return environment(self._certificate)

    def _write_files(self):
        def write(name, text):
            pathlib.Path(self._etc.replacement(name)).write_text(text)

        write(
            "hosts",
            "127.0.0.1 localhost\n"
            "::1 localhost\n"
            f"{THERE4} {NAME}\n"
            f"{THERE6} {NAME}\n",
        )
        write("nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n")
        write("resolv.conf", "")
        # An application is registered by its path, in a file that only root can write.
        shutil.copy("/usr/bin/curl", self.exempt_curl)
        os.makedirs(self._etc.replacement("ostravel", "applications.d"), mode=0o755)
        write(
            "ostravel/applications.d/demo.json",
            json.dumps({self.exempt_curl: EXEMPT_IDENTIFIER}) + "\n",
        )
        os.chmod(self._etc.replacement("ostravel", "applications.d", "demo.json"), 0o644)
        pathlib.Path(self.configuration).write_text(
            json.dumps({"monitoringSocketPath": self.socket}) + "\n"
        )
        self._certificate = make_certificate(self.folder)

    def _start_origins(self):
        def start(name, *options, **how):
            script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "origin.py")
            origin = Program([sys.executable, script, *options], name, **how)
            origin.expect(origin.output, "ready")

        start(
            "the origin server there",
            "--name", "there",
            "--certificate", self._certificate, "--key", key_of(self._certificate),
            namespace=self._network.there,
        )  # fmt: skip
        start("the server on the loopback address", "--name", "localhost", "--loopback")

    def _close(self):
        os.chdir("/")
        # All of them belong to the demonstration.
        for namespace in (self._network.here, self._network.there):
            namespace.end_processes()
        self._network.close()
        for mount in self._mounts:
            subprocess.run(["umount", "--lazy", mount], stderr=subprocess.DEVNULL, check=False)
        os.rmdir(self.folder)
