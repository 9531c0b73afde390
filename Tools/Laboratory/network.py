"""A private network: applications here, origin servers there."""

import os

from .namespace import Namespace
from .program import run

# Addresses that are set aside for documentation (RFC 5737, RFC 3849).
HERE4, HERE6 = "198.51.100.1", "2001:db8::1"
THERE4, THERE6 = "198.51.100.10", "2001:db8::10"
# Of the origin servers, in their certificate.
NAME = "origin.example"


class Network:
    """Two network namespaces, here and there, joined by a virtual cable.

    Networks share nothing, so any number of them can exist at once.
    """

    def __init__(self):
        self.here = Namespace()
        try:
            self.there = Namespace()
        except BaseException:
            self.here.close()
            raise
        try:
            self._connect()
        except BaseException:
            self.close()
            raise

    def _connect(self):
        self.here.run(
            "ip", "link", "add", "here", "type", "veth", "peer", "name", "there",
            "netns", self.there.path,
        )  # fmt: skip
        for namespace, interface, ipv4, ipv6 in (
            (self.here, "here", HERE4, HERE6),
            (self.there, "there", THERE4, THERE6),
        ):
            # Usable at once: nobody else can have the address.
            namespace.run(
                "ip", "-batch", "-",
                given=f"addr add {ipv4}/24 dev {interface}\n"
                f"addr add {ipv6}/64 dev {interface} nodad\n"
                f"link set {interface} up\n",
            )  # fmt: skip

    def close(self):
        self.there.close()
        self.here.close()


def make_certificate(folder):
    """A certificate for the origin servers, with its key in key.pem beside it; returns its path."""
    path = os.path.join(folder, "certificate.pem")
    run(
        "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
        "-nodes", "-days", "2", "-subj", f"/CN={NAME}",
        "-addext", f"subjectAltName=DNS:{NAME},IP:{THERE4},IP:{THERE6}",
        "-keyout", key_of(path), "-out", path,
    )  # fmt: skip
    return path


def key_of(certificate):
    return os.path.join(os.path.dirname(certificate), "key.pem")


def environment(certificate):
    """For programs: this certificate, and none of the machine's settings for proxies or logs."""
    kept = {
        name: value
        for name, value in os.environ.items()
        if not name.lower().endswith("_proxy")
        and name not in ("CURL_HOME", "JOURNAL_STREAM", "SSL_CERT_DIR")
    }
    return kept | {"CURL_CA_BUNDLE": certificate, "SSL_CERT_FILE": certificate}
