"""What the journal says about flows, and how to find it there; and which lines are written at all."""

import json
import os
import pathlib
import subprocess

import pytest

from Laboratory.network import THERE4
from laboratory import CURL, PEER_PORT, eventually, log_lines
from origins import tell_peer

JOURNALD = "/lib/systemd/systemd-journald"
ERROR, NOTICE, INFO = "3", "5", "6"
SENDING = "OstravelProxy: Sending CONNECT handshake (details private)"
SUCCESSFUL = "OstravelProxy: Handshake successful."


class Journal:
    """A separate journal, in a folder that takes the place of /run."""

    def __init__(self, laboratory):
        self.folder = laboratory.path("run")
        os.makedirs(os.path.join(self.folder, "systemd/journal"))
        configuration = laboratory.path("journald.conf")
        pathlib.Path(configuration).write_text("[Journal]\nAudit=no\nReadKMsg=no\n")
        laboratory.start(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c",
             'mount --bind "$1" /run && mount --bind "$2" /etc/systemd/journald.conf && exec "$0"',
             JOURNALD, self.folder, configuration],
            name="systemd-journald",
        )  # fmt: skip
        eventually(
            lambda: os.path.exists(os.path.join(self.folder, "systemd/journal/socket")),
            "the journal is there",
        )

    @property
    def prefix(self):
        """The prefix of a command line whose program finds the journal, in a mount namespace."""
        return ("sh", "-c", 'mount --bind "$0" /run && exec "$@"', self.folder)

    def find(self, *matches):
        done = subprocess.run(
            ["journalctl", "--quiet", "--directory", os.path.join(self.folder, "log/journal"),
             "--output", "json", *matches],
            capture_output=True, text=True, check=False,
        )  # fmt: skip
        return [json.loads(line) for line in done.stdout.splitlines()]


@pytest.fixture
def journal(laboratory):
    return Journal(laboratory)


def start(laboratory, *options, configuration=None, prefix=()):
    """Returns when flows are proxied, without reading the log."""
    given = {"monitoringSocketPath": laboratory.socket_path, **(configuration or {})}
    extension = laboratory.run_extension(
        "--configuration", laboratory.write_configuration(json.dumps(given)), *options,
        prefix=prefix,
    )  # fmt: skip
    laboratory.wait_until_proxied()
    return extension


def last_flow(laboratory):
    """The id and the outcome of curl's last flow that was taken, when it is over."""
    def ended():
        lines = laboratory.control("--json", "flows").stdout.splitlines()
        flows = [flow for flow in map(json.loads, lines) if flow["application"] == CURL]
        return flows and flows[-1]["action"] == "proxied" and not flows[-1]["open"] and flows[-1]

    flow = eventually(ended, "curl's flow is over")
    return flow["flow_id"], flow["outcome"]


FAILURES = [
    ({"answer": "HTTP/1.1 403 Forbidden\r\n\r\n", "then": "end"}, "rejected",
     "extension.connect_handshake_non_200", "Handshake failed (response status not 200)"),
    ({"answer": "\xff\r\n\r\n", "then": "end"}, "invalid",
     "extension.connect_handshake_invalid", "Handshake failed (invalid response)"),
    ({"answer": "", "then": "end"}, "no_answer",
     "extension.tunnel_closed", "The proxy closed the connection without an answer"),
    ({"answer": "", "then": "reset"}, "connection_failed",
     "extension.tunnel_closed", "The connection to the proxy failed: "),
    ({"answer": "", "then": "hold"}, "timed_out",
     "extension.connect_handshake_timed_out", "CONNECT handshake timed out"),
]  # fmt: skip


def test_each_failed_flow_has_one_line_with_its_fields(laboratory, journal):
    laboratory.serve(80, tell_peer)
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    start(laboratory, "--log", "journal", prefix=journal.prefix)
    kinds = set()
    for behaviour, outcome, code, text in FAILURES:
        proxy.behave()
        laboratory.wait_until_proxied()
        proxy.behave(**behaviour)
        laboratory.curl(f"http://{THERE4}/")
        flow, found = last_flow(laboratory)
        assert found == outcome
        about_flow = f"OSTRAVEL_FLOW_ID={flow}"
        line, = eventually(lambda about=about_flow: journal.find("-p", "err", about), outcome)
        assert line["MESSAGE"].startswith(f"OstravelProxy: {text}")
        assert (line["PRIORITY"], line["OSTRAVEL_CODE"]) == (ERROR, code)
        assert line["APPLICATION"] == CURL
        assert journal.find(f"MESSAGE_ID={line['MESSAGE_ID']}")[-1] == line
        kinds.add(line["MESSAGE_ID"])
        # The rest of the flow's life, without the application.
        routine = [each for each in journal.find(about_flow) if each["PRIORITY"] != ERROR]
        assert [(each["MESSAGE"], each["PRIORITY"]) for each in routine] == [(SENDING, NOTICE)]
        assert "APPLICATION" not in routine[0]
    assert len(kinds) == len(FAILURES)
    assert len(journal.find("-p", "err", f"APPLICATION={CURL}")) == len(FAILURES)


def test_a_flow_that_succeeds_is_found_by_its_id(laboratory, journal):
    laboratory.serve(80, tell_peer)
    laboratory.start_monitor()
    laboratory.start_sidecar()
    start(laboratory, "--log", "journal", prefix=journal.prefix)
    assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
    flow, _ = last_flow(laboratory)
    lines = eventually(
        lambda: len(found := journal.find("-p", "info", f"OSTRAVEL_FLOW_ID={flow}")) >= 2 and found,
        "two lines",
    )
    assert [(each["MESSAGE"], each["PRIORITY"]) for each in lines] == [
        (SENDING, NOTICE), (SUCCESSFUL, INFO)]
    # Nor do the debug lines that say how the tunnel has ended.
    assert not any("APPLICATION" in each for each in journal.find(f"OSTRAVEL_FLOW_ID={flow}"))


@pytest.mark.parametrize(
    "options, configuration, written",
    [
        ((), {}, {SENDING, SUCCESSFUL}),
        (("--log-level", "default"), {}, {SENDING}),
        (("--log-level", "error"), {}, set()),
        ((), {"logLevel": "error"}, set()),
        (("--log-level", "info"), {"logLevel": "error"}, {SENDING, SUCCESSFUL}),
    ],
)
def test_the_level_says_which_lines_are_written(laboratory, options, configuration, written):
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    extension = start(laboratory, *options, configuration=configuration)
    proxy.behave(answer="HTTP/1.1 403 Forbidden\r\n\r\n", then="end")
    laboratory.fetch(THERE4, PEER_PORT)
    assert extension.stop() == 0
    lines = {text for _, text in log_lines(extension)}
    assert lines & {SENDING, SUCCESSFUL} == written
    # Failures are written at every level.
    assert "OstravelProxy: Handshake failed (response status not 200)" in lines
