"""What every test needs: the programs, the permissions, and its own laboratory."""

import os
import resource
import shutil
import subprocess
import sys

import pytest

sys.dont_write_bytecode = True

from laboratory import NAME, PYTHON, THERE4, THERE6, Laboratory  # noqa: E402

OWN_PROGRAMS = ("ostravel-extension", "ostravel-monitor", "ostravel-sidecar")
FOREIGN_PROGRAMS = {
    "curl": "curl",
    "ip": "iproute2",
    "mount": "mount",
    "nft": "nftables",
    "nginx": "nginx-light",
    "openssl": "openssl",
    "prlimit": "util-linux",
    "setpriv": "util-linux",
    "tinyproxy": "tinyproxy-bin",
    "unshare": "util-linux",
}


def find_missing():
    """One sentence about the first missing prerequisite; None if there is none."""
    if os.geteuid() != 0:
        return "the end-to-end tests make network namespaces: run them as root"
    if os.path.realpath(sys.executable) != PYTHON:
        return f"the end-to-end tests are run by {PYTHON}, the application that they expect to be"
    for name, package in FOREIGN_PROGRAMS.items():
        if shutil.which(name) is None:
            return f"the program {name} is missing: install the package {package}"
    folder = os.environ.get("OSTRAVEL_BIN")
    if not folder:
        return "OSTRAVEL_BIN does not say in which folder the programs to be tested are"
    for name in OWN_PROGRAMS:
        if not os.access(os.path.join(folder, name), os.X_OK):
            return f"{name} is not in {folder}: build it first"
    done = subprocess.run(
        ["unshare", "--net", "--mount", "ip", "link", "set", "lo", "up"],
        capture_output=True,
        check=False,
    )
    if done.returncode != 0:
        return (
            "this machine denies network namespaces or their administration (CAP_SYS_ADMIN, "
            "CAP_NET_ADMIN): run the tests outside a container that takes that away"
        )
    return None


@pytest.fixture(scope="session")
def programs_folder():
    missing = find_missing()
    if missing:
        pytest.fail(missing, pytrace=False)
    # Both ends of thousands of connections are here.
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    return os.path.abspath(os.environ["OSTRAVEL_BIN"])


@pytest.fixture(scope="session")
def certificate(programs_folder, tmp_path_factory):
    """The path of a certificate for the origin, with its key in key.pem beside it."""
    folder = tmp_path_factory.mktemp("certificate")
    path = str(folder / "certificate.pem")
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
         "-nodes", "-days", "2", "-subj", f"/CN={NAME}",
         "-addext", f"subjectAltName=DNS:{NAME},IP:{THERE4},IP:{THERE6}",
         "-keyout", str(folder / "key.pem"), "-out", path],
        check=True,
        capture_output=True,
    )  # fmt: skip
    return path


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
