"""The jobs of ./run, without building: the demonstration, the live job and the shell."""

import os
import pathlib
import re
import signal
import stat
import subprocess
import time

import pytest

from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.namespace import processes_in
from Laboratory.network import THERE4
from laboratory import PYTHON, eventually

JOBS = str(pathlib.Path(__file__).resolve().parents[2] / "Tools" / "demonstration")
DEMONSTRATION_SECONDS = 60

# Sends the proxy events of a real one, but touches no packet.
IDLE_EXTENSION = f"""#!{PYTHON}
import json, signal, socket, struct, sys, time

def send(name):
    body = json.dumps({{
        "message_id": "1", "timestamp": time.time(), "logged_at": "", "level": "info",
        "type": "extension_proxy_event", "current_signal": name, "code": "extension." + name,
        "component": "network_extension", "message": name,
    }}).encode()
    with socket.socket(socket.AF_UNIX) as sock:
        sock.connect(path)
        sock.sendall(struct.pack(">I", len(body)) + body)

def is_there():
    with socket.socket() as sock:
        return sock.connect_ex(("127.0.0.1", 8080)) == 0

path = json.load(open(sys.argv[sys.argv.index("--configuration") + 1]))["monitoringSocketPath"]
print("Rules set successfully", file=sys.stderr, flush=True)
signal.signal(signal.SIGALRM, lambda *_: None)
signal.setitimer(signal.ITIMER_REAL, 0.1, 0.1)
was_there = True
while True:
    if is_there() != was_there:
        was_there = not was_there
        send("proxy_recovered" if was_there else "proxy_unreachable")
        if was_there:
            print("the local proxy is a program", file=sys.stderr, flush=True)
    signal.pause()
"""


def start(job, programs_folder, **options):
    return subprocess.Popen(
        [PYTHON, "-B", JOBS, job, programs_folder],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        **options,
    )


def run(job, programs_folder, given=None):
    process = start(job, programs_folder, stdin=subprocess.PIPE)
    output, errors = process.communicate(given, timeout=120)
    return process.returncode, output, errors


def read_until(process, text):
    """The job's output up to the first line with this text."""
    lines = []
    for line in process.stdout:
        lines.append(line)
        if text in line:
            return "".join(lines)
    raise AssertionError(f"never said \"{text}\": {''.join(lines)}{process.stderr.read()}")


def assert_no_folder_is_left(output):
    (folder,) = set(re.findall(r"/tmp/ostravel-run-\w+", output))
    assert not os.path.exists(folder)


def test_every_step_of_the_demonstration_is_as_expected(programs_folder):
    begin = time.monotonic()
    status, output, errors = run("demonstrate", programs_folder)
    assert time.monotonic() - begin < DEMONSTRATION_SECONDS
    assert status == 0, output + errors
    assert errors == ""
    assert "DIFFERS" not in output
    assert re.search(r"^All 13 steps as expected, in [\d.]+ s\.$", output, re.MULTILINE)
    # Neither colours nor long lines without a terminal.
    assert "\x1b" not in output
    assert max(map(len, output.splitlines())) <= 100
    assert_no_folder_is_left(output)


def test_the_demonstration_detects_an_idle_extension(programs_folder, tmp_path):
    for name in ("ostravel-monitor", "ostravel-sidecar"):
        (tmp_path / name).symlink_to(os.path.join(programs_folder, name))
    extension = tmp_path / "ostravel-extension"
    extension.write_text(IDLE_EXTENSION)
    extension.chmod(extension.stat().st_mode | stat.S_IXUSR)
    status, output, errors = run("demonstrate", str(tmp_path))
    assert status == 1, output + errors
    table = output[output.index("step ") :]
    differing = {
        line[4:34].strip() for line in table.splitlines() if line.endswith("DIFFERS")
    }
    # The steps that do not depend on an extension are as expected.
    assert {"Start", "HTTP over IPv4", "HTTPS", "QUIC", "The proxy is back"} <= differing
    assert "An exempt application" not in differing
    assert_no_folder_is_left(output)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_an_interrupted_demonstration_leaves_nothing(programs_folder, number):
    process = start("demonstrate", programs_folder)
    # The folder of the demonstration is named in this command.
    output = read_until(process, "/vpn-client")
    with open(f"/proc/{process.pid}/ns/net") as kept:
        namespace = os.readlink(f"/proc/self/fd/{kept.fileno()}")
        assert len(processes_in(namespace)) > 3
        process.send_signal(number)
        process.communicate(timeout=GENEROUS_SECONDS)
        assert process.returncode == 128 + number
        assert processes_in(namespace) == []
    assert_no_folder_is_left(output)


def test_demonstrations_do_not_disturb_one_another(programs_folder):
    processes = [start("demonstrate", programs_folder) for _ in range(3)]
    for process in processes:
        output, errors = process.communicate(timeout=120)
        assert process.returncode == 0, output + errors


def test_a_shell_runs_the_given_command(programs_folder):
    status, output, errors = run(
        "shell",
        programs_folder,
        "curl -s http://origin.example/ -w 'own port %{local_port}\\n'\n"
        "rules | head -n 1\n"
        "echo folder ${CONFIGURATION%/*}\n"
        "sleep 1000 & echo process $!; disown\n"
        "exit 7\n",
    )
    assert status == 7, output + errors
    seen, own = re.search(r"port (\d+)\nown port (\d+)\n", output).groups()
    assert seen != own
    assert "table inet ostravel" in output
    # It may still be there as a zombie, which is in no namespace.
    with pytest.raises(FileNotFoundError):
        os.readlink(f"/proc/{re.search(r'process ([0-9]+)', output).group(1)}/ns/net")
    assert_no_folder_is_left(output)


def test_killing_the_extension_in_the_shell_spares_applications(programs_folder):
    status, output, errors = run(
        "shell",
        programs_folder,
        "kill -9 $EXTENSION; while rules | grep -q flags; do :; done\n"
        "curl -s http://origin.example/ -w 'own port %{local_port}\\n'; rules\n",
    )
    assert status == 0, output + errors
    seen, own = re.search(r"port (\d+)\nown port (\d+)\n", output).groups()
    assert seen == own
    assert output.endswith("no table inet ostravel\n")


class Live:
    """The live job in a laboratory's namespace here, as on a separate machine."""

    def __init__(self, laboratory, *options):
        self.laboratory = laboratory
        self.program = laboratory.start(
            [PYTHON, "-B", JOBS, "live", laboratory.programs_folder, *options], name="live"
        )

    def wait_until_started(self):
        self.program.expect(self.program.output, " started ")

    def wait_until_proxied(self):
        eventually(
            lambda: self.laboratory.fetch(THERE4, 7860).way == "proxied", "flows are proxied"
        )

    def child(self, name):
        """The number of the process that it has started under this name."""
        done = subprocess.run(
            ["ps", "--ppid", str(self.program.pid), "-o", "pid=,args="],
            capture_output=True, text=True, check=True,
        )  # fmt: skip
        (line,) = [line for line in done.stdout.splitlines() if f"/{name}" in line]
        return int(line.split()[0])

    def assert_nothing_is_left(self):
        assert not self.laboratory.has_rules()
        assert processes_in(self.laboratory.here.name) == []
        with pytest.raises(ConnectionRefusedError):
            self.laboratory.connect("127.0.0.1", 8080)


@pytest.fixture
def live(laboratory):
    return Live(laboratory)


def test_live_names_its_page_if_asked(laboratory):
    live = Live(laboratory, "--web")
    live.wait_until_started()
    live.program.expect(live.program.output, "http://127.0.0.1:8090/?token=")
    assert live.program.stop() == 0
    live.assert_nothing_is_left()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_live_serves_until_it_is_ended(live, number):
    live.wait_until_started()
    live.wait_until_proxied()
    assert live.program.stop(number) == 0
    output = live.program.output.since()
    assert any("ostravel-sidecar, started for it" in line for line in output)
    assert any(" connected " in line for line in output)
    assert " stopped " in output[-2]
    assert output[-1] == "Ended: no rule, socket, file or process is left."
    assert live.program.errors.since() == []
    live.assert_nothing_is_left()


def test_live_uses_a_running_proxy(laboratory):
    tinyproxy = laboratory.start_tinyproxy()
    live = Live(laboratory)
    live.wait_until_started()
    live.wait_until_proxied()
    assert f"tinyproxy (process {tinyproxy.pid})" in " ".join(live.program.output.since())
    assert live.program.stop() == 0
    # It was running before, and still is.
    assert tinyproxy.process.poll() is None


def test_live_names_the_user_of_a_running_proxy(laboratory):
    laboratory.start_sidecar(user=65534)
    live = Live(laboratory)
    live.wait_until_started()
    live.wait_until_proxied()
    assert "--proxy-user nobody" in " ".join(live.program.output.since())
    assert live.program.stop() == 0


def test_live_refuses_a_listener_that_is_not_a_proxy(laboratory):
    web = laboratory.start(
        [PYTHON, "-u", "-m", "http.server", "8080", "--bind", "127.0.0.1"], name="web server"
    )
    web.expect(web.output, "Serving HTTP")
    live = Live(laboratory)
    assert live.program.wait() == 2
    (line,) = live.program.errors.since()
    assert "is no HTTP proxy" in line and f"process {web.pid}" in line
    assert not laboratory.has_rules()


@pytest.mark.parametrize("name", ["ostravel-sidecar", "ostravel-extension", "ostravel-monitor"])
def test_live_ends_when_one_of_its_programs_dies(live, name):
    live.wait_until_started()
    os.kill(live.child(name), signal.SIGKILL)
    assert live.program.wait() == 1
    assert live.program.errors.since() == [
        f"run: {name} was ended by SIGKILL; the others have been stopped"
    ]
    live.assert_nothing_is_left()


def test_a_second_live_job_reports_the_first(live, laboratory):
    live.wait_until_started()
    second = Live(laboratory)
    assert second.program.wait() == 2
    (line,) = second.program.errors.since()
    assert "another instance is running in this network namespace" in line
    # Which continues.
    live.wait_until_proxied()
    assert live.program.stop() == 0


def test_live_reports_a_missing_permission(laboratory):
    program = laboratory.start(
        ["setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin",
         PYTHON, "-B", JOBS, "live", laboratory.programs_folder],
        name="live",
    )  # fmt: skip
    assert program.wait() == 2
    (line,) = program.errors.since()
    assert "CAP_NET_ADMIN" in line


# The commands at the root


ROOT = pathlib.Path(__file__).resolve().parents[2]


def run_command(*arguments, **options):
    return subprocess.run(
        arguments, capture_output=True, text=True, timeout=60, check=False, **options
    )


@pytest.mark.parametrize(
    "arguments", [["--help"], ["live", "--help"], ["shell", "-h"], ["live", "x", "--help"]]
)
def test_the_command_shows_its_usage(arguments):
    done = run_command(str(ROOT / "run"), *arguments)
    assert done.returncode == 0
    assert done.stdout.startswith("usage: ./run ")
    assert done.stderr == ""


def test_live_reports_that_nft_is_missing(laboratory, tmp_path):
    for name in ("ss", "ip"):
        (tmp_path / name).symlink_to(f"/usr/bin/{name}")
    program = laboratory.start(
        ["env", f"PATH={tmp_path}", PYTHON, "-B", JOBS, "live",
         laboratory.programs_folder],
        name="live",
    )  # fmt: skip
    assert program.wait() == 2
    assert program.errors.since() == [
        "run: the program nft is missing: install the package nftables"
    ]


def test_a_build_folder_that_cannot_be_written_to_is_reported(tmp_path):
    # A file, because root may write to every folder.
    (tmp_path / "build").write_text("")
    done = run_command(
        "bash", "-c", f'. "{ROOT}/Tools/setup.sh"; build release', cwd=tmp_path
    )
    assert done.returncode == 2
    assert done.stderr.splitlines()[-1] == (
        f"bash: the folder {tmp_path}/build/release cannot be written to: change its owner or its "
        "permissions"
    )
