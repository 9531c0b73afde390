"""What every test needs: the programs, the permissions, and its own laboratory."""

import os
import resource
import sys

import pytest

sys.dont_write_bytecode = True

from Laboratory.namespace import Namespace  # noqa: E402
from Laboratory.network import make_certificate  # noqa: E402
from Laboratory.ostravel import PROGRAMS  # noqa: E402
from Laboratory.problem import Problem  # noqa: E402
from Laboratory.program import find_missing  # noqa: E402
from laboratory import PYTHON, Laboratory  # noqa: E402

FOREIGN_PROGRAMS = {
    "curl": "curl",
    "ip": "iproute2",
    "iptables-legacy-restore": "iptables",
    "jq": "jq",
    "mount": "mount",
    "nats-server": "nats-server",
    "nft": "nftables",
    "nginx": "nginx-light",
    "openssl": "openssl",
    "prlimit": "util-linux",
    "setpriv": "util-linux",
    "strace": "strace",
    "tinyproxy": "tinyproxy-bin",
    "dnsmasq": "dnsmasq-base",
    "unbound": "unbound",
    "unshare": "util-linux",
}


def find_missing_prerequisite():
    """One sentence about the first missing prerequisite; None if there is none."""
    if os.geteuid() != 0:
        return "the end-to-end tests make network namespaces: run them as root"
    if os.path.realpath(sys.executable) != PYTHON:
        return f"the end-to-end tests are run by {PYTHON}, the application that they expect to be"
    folder = os.environ.get("OSTRAVEL_BIN")
    if not folder:
        return "OSTRAVEL_BIN does not say in which folder the programs to be tested are"
    if missing := find_missing(folder, PROGRAMS, FOREIGN_PROGRAMS):
        return missing
    try:
        Namespace().close()
    except Problem:
        return (
            "this machine denies network namespaces or their administration (CAP_SYS_ADMIN, "
            "CAP_NET_ADMIN): run the tests outside a container that takes that away"
        )
    return None


@pytest.fixture(scope="session")
def programs_folder():
    missing = find_missing_prerequisite()
    if missing:
        pytest.fail(missing, pytrace=False)
    # Both ends of thousands of connections are here.
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    return os.path.abspath(os.environ["OSTRAVEL_BIN"])


@pytest.fixture(scope="session")
def certificate(programs_folder, tmp_path_factory):
    """The path of a certificate for the origin, with its key in key.pem beside it."""
    return make_certificate(tmp_path_factory.mktemp("certificate"))


@pytest.fixture
def laboratory(programs_folder, certificate):
    made = Laboratory(programs_folder, certificate)
    yield made
    made.close()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Shows what the programs wrote when a test fails."""
    outcome = yield
    report = outcome.get_result()
    used = getattr(item, "funcargs", {}).get("laboratory")
    if report.failed and used is not None:
        for title, lines in used.logs():
            shown = lines[-200:]
            if len(shown) < len(lines):
                shown.insert(0, f"({len(lines) - len(shown)} lines before)")
            report.sections.append((title, "\n".join(shown)))
