"""What the extension reports, requires and refuses when it starts."""

import os
import pathlib
import re
import secrets
import signal
import socket
import tempfile

import pytest

from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.network import THERE4
from hangs import children_of, control_group, start_in
from laboratory import CURL, PEER_PORT, PYTHON, eventually, log_lines, remote

READS_PROCESSES = "+sys_ptrace,+dac_read_search"


def with_capabilities(capabilities):
    """The prefix of a command line that keeps only these."""
    return ("setpriv", f"--inh-caps=-all,{capabilities}", f"--bounding-set=-all,{capabilities}")


def as_service_user(capabilities):
    """The prefix of a command line that runs as an ordinary user with these."""
    return ("setpriv", "--reuid", "990", "--regid", "990", "--clear-groups",
            f"--inh-caps=-all,{capabilities}", f"--ambient-caps=-all,{capabilities}",
            f"--bounding-set=-all,{capabilities}")  # fmt: skip


@pytest.fixture
def laboratory(laboratory):
    """With programs that every user may run."""
    laboratory.copy_of(laboratory.program_path("ostravel-extension"), "ostravel-extension")
    laboratory.copy_of(laboratory.program_path("ostravel-inspector"), "ostravel-inspector")
    laboratory.copy_of(laboratory.program_path("ostravel-sidecar"), "ostravel-sidecar")
    laboratory.copy_of(laboratory.program_path("ostravel-monitor"), "ostravel-monitor")
    laboratory.programs_folder = laboratory.folder
    return laboratory


def last_line(program):
    assert program.wait() == 2
    lines = program.errors.since()
    assert [line for line in lines if line.startswith("ostravel-extension: ")] == lines[-1:]
    return lines[-1]


def errors_of(program):
    return [text for level, text in log_lines(program) if level == "error"]


# Permissions


@pytest.mark.parametrize(
    "capabilities, missing",
    [
        ("+net_admin", "CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH"),
        ("+net_admin,+sys_ptrace", "CAP_DAC_READ_SEARCH"),
        ("+net_admin,+dac_read_search", "CAP_SYS_PTRACE"),
    ],
)
def test_it_refuses_to_run_where_it_could_do_nothing(laboratory, capabilities, missing):
    extension = laboratory.run_extension(prefix=as_service_user(capabilities))
    assert last_line(extension) == (
        f"ostravel-extension: the permission to look at other processes ({missing}) is missing, "
        "without which no local proxy can be recognised and every connection would go direct: run "
        "as root"
    )
    assert not laboratory.has_rules()


def test_the_capabilities_of_the_service_suffice(laboratory):
    laboratory.start_monitor()
    os.chmod(laboratory.socket_path, 0o666)
    laboratory.start_sidecar(user=989)
    extension = laboratory.start_extension(
        prefix=as_service_user(f"+net_admin,+net_raw,{READS_PROCESSES},+bpf,+perfmon")
    )
    laboratory.wait_until_proxied()
    # Nothing else is missing: everything else works as it does for root.
    assert errors_of(extension) == [
        "OstravelProxy: CAP_SYS_NICE is missing: on a very busy machine the guardian may notice a "
        "hang late"
    ]
    assert extension.stop() == 0


def test_it_names_what_is_missing_and_what_that_costs(laboratory):
    extension = laboratory.start_extension(
        prefix=with_capabilities(f"+net_admin,{READS_PROCESSES}")
    )
    missing = [line for line in errors_of(extension) if "is missing" in line]
    assert [line.partition(" is missing: ")[0] for line in missing] == [
        "OstravelProxy: CAP_BPF or CAP_PERFMON",
        "OstravelProxy: CAP_NET_RAW",
        "OstravelProxy: CAP_SYS_NICE",
    ]
    assert extension.stop() == 0


# Takes the place of the service manager: passes a socket on which every user may ask.
PASS_SOCKET = """
import os, socket, sys
path = sys.argv[1]
if os.path.exists(path):
    os.unlink(path)
listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
listener.bind(path)
os.chmod(path, 0o777)
listener.listen()
os.dup2(listener.fileno(), 3)
os.set_inheritable(3, True)
os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()))
print("listening", flush=True)
os.execvp(sys.argv[2], sys.argv[2:])
"""


def start_inspector(laboratory):
    program = laboratory.program_path("ostravel-inspector")
    path = laboratory.path("inspector.sock")
    # In the same view of the control groups as the extension.
    inspector = laboratory.start(
        ["unshare", "--cgroup", PYTHON, "-c", PASS_SOCKET, path, program, "--client", "990"],
        name="ostravel-inspector",
    )
    inspector.expect(inspector.output, "listening")
    return inspector, path


def start_with_inspector(laboratory):
    """A system whose extension may not look at the processes of other users."""
    laboratory.start_monitor()
    os.chmod(laboratory.socket_path, 0o666)
    laboratory.start_sidecar(user=989)
    inspector, path = start_inspector(laboratory)
    extension = laboratory.start_extension(
        "--inspector", path, prefix=as_service_user("+net_admin,+net_raw,+bpf,+perfmon")
    )
    laboratory.wait_until_proxied()
    return inspector, extension


def application_of(laboratory, fetch):
    """The identifier of a process that is new; None if its connection went direct."""
    mark = laboratory.events.mark()
    fetched = fetch()
    assert fetched.status == 0, fetched.details
    if fetched.way != "proxied":
        return None
    return laboratory.events.flow_to(remote(THERE4, PEER_PORT), mark)[0]["context"].get("app_id")


def application_of_curl(laboratory, user):
    return application_of(
        laboratory, lambda: laboratory.curl(f"http://{THERE4}:{PEER_PORT}/", user=user)
    )


def check_that_new_processes_connect(laboratory):
    for _ in range(3):
        fetched = laboratory.curl(f"http://{THERE4}:{PEER_PORT}/", user=988)
        assert fetched.status == 0, fetched.details


def test_an_extension_without_permissions_asks_the_inspector(laboratory):
    _, extension = start_with_inspector(laboratory)
    # On a busy machine one answer may be late.
    for user in (0, 988):
        eventually(
            lambda user=user: application_of_curl(laboratory, user) == CURL, f"user {user} is named"
        )
    assert [line for line in errors_of(extension) if "CAP_" in line] == [
        "OstravelProxy: CAP_SYS_NICE is missing: on a very busy machine the guardian may notice a "
        "hang late"
    ]
    assert extension.stop() == 0


# As curl writes it: what the origin says, and the own port.
FETCH = """#!/usr/bin/python3 -I
import socket, sys
with socket.create_connection((sys.argv[1], int(sys.argv[2])), timeout=30) as connection:
    connection.sendall(b"GET / HTTP/1.0\\r\\n\\r\\n")
    body = b"".join(iter(lambda: connection.recv(4096), b"")).partition(b"\\r\\n\\r\\n")[2]
    print(body.decode(), connection.getsockname()[1], sep="\\n", end="")
"""


@pytest.fixture
def script():
    # In a folder for temporary files it would not have its path as its name.
    with tempfile.TemporaryDirectory(prefix="ostravel-test-", dir="/opt") as folder:
        os.chmod(folder, 0o755)
        path = pathlib.Path(folder, "fetch")
        path.write_text(FETCH, encoding="utf-8")
        path.chmod(0o755)
        yield str(path)


def curl_in(group):
    return (*start_in(group), CURL, "-q", "-sS", "--max-time", "30", "-w", "\n%{local_port}",
            f"http://{THERE4}:{PEER_PORT}/")  # fmt: skip


def test_the_inspector_sees_scripts_services_and_containers(laboratory, script):
    _, extension = start_with_inspector(laboratory)
    container = secrets.token_hex(32)
    with (
        control_group(f"ostravel-test-{os.getpid()}.service") as service,
        control_group(f"app-flatpak-org.example.Viewer-{os.getpid()}.scope") as sandbox,
        control_group(f"docker-{container}.scope") as contained,
    ):
        for command, identifier in (
            ((script, THERE4, str(PEER_PORT)), script),
            (curl_in(service), service.name),
            (curl_in(sandbox), "org.example.Viewer"),
            (curl_in(contained), f"{CURL}//container/{container[:12]}"),
        ):
            eventually(
                lambda command=command, identifier=identifier: application_of(
                    laboratory, lambda: laboratory.run_fetcher(*command)) == identifier,
                f"{identifier} is named",
                seconds=4 * GENEROUS_SECONDS,
            )  # fmt: skip
    assert extension.stop() == 0


def test_without_an_inspector_everything_goes_direct(laboratory):
    """The extension does not look itself, although it could here."""
    laboratory.start_monitor()
    laboratory.start_sidecar()
    extension = laboratory.start_extension("--inspector", laboratory.path("inspector.sock"))
    extension.expect(extension.errors, "processes cannot be inspected (")
    for _ in range(3):
        assert laboratory.fetch(THERE4, PEER_PORT).way == "direct"
    assert extension.stop() == 0


def test_a_stopped_or_killed_inspector_costs_no_connection(laboratory):
    inspector, extension = start_with_inspector(laboratory)
    os.kill(inspector.pid, signal.SIGSTOP)
    check_that_new_processes_connect(laboratory)
    # One that is known already.
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    silent = "the inspector does not answer"
    eventually(
        lambda: check_that_new_processes_connect(laboratory)
        or any(silent in line for line in errors_of(extension)),
        "the log says so",
    )
    os.kill(inspector.pid, signal.SIGCONT)
    eventually(lambda: application_of_curl(laboratory, 988) == CURL, "processes are named again")
    extension.expect(extension.errors, "processes can be inspected again")

    inspector.close()
    check_that_new_processes_connect(laboratory)
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    start_inspector(laboratory)
    eventually(lambda: application_of_curl(laboratory, 988) == CURL, "processes are named again")
    assert extension.stop() == 0


# Passes questions on, and answers later than the extension waits once the file exists.
DELAY_ANSWERS = """
import os, socket, sys, threading, time
path, inspector, slow = sys.argv[1:]

def pass_on(source, target, may_wait):
    while True:
        message, descriptors, _, _ = socket.recv_fds(source, 65536, 4)
        if not message:
            target.shutdown(socket.SHUT_RDWR)
            return
        if may_wait and os.path.exists(slow):
            time.sleep(0.3)
        socket.send_fds(target, [message], descriptors)
        for descriptor in descriptors:
            os.close(descriptor)

listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
listener.bind(path)
os.chmod(path, 0o777)
listener.listen()
print("listening", flush=True)
while True:
    client = listener.accept()[0]
    server = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    server.connect(inspector)
    for source, target, may_wait in ((client, server, False), (server, client, True)):
        threading.Thread(target=pass_on, args=(source, target, may_wait), daemon=True).start()
"""

# One connection after the other, by one process.
KEEP_FETCHING = """#!/usr/bin/python3 -I
import socket, sys, time
while True:
    with socket.create_connection((sys.argv[1], int(sys.argv[2])), timeout=30) as connection:
        connection.sendall(b"GET / HTTP/1.0\\r\\n\\r\\n")
        while connection.recv(4096):
            pass
    time.sleep(0.5)
"""


def test_a_slow_inspector_names_a_process_at_a_later_connection(laboratory, script):
    pathlib.Path(script).write_text(KEEP_FETCHING, encoding="utf-8")
    _, path = start_inspector(laboratory)
    slow_path, slow = laboratory.path("slow.sock"), laboratory.path("slow")
    relay = laboratory.start(
        [PYTHON, "-c", DELAY_ANSWERS, slow_path, path, slow], name="slow-inspector"
    )
    relay.expect(relay.output, "listening")
    laboratory.start_monitor()
    os.chmod(laboratory.socket_path, 0o666)
    laboratory.start_sidecar(user=989)
    extension = laboratory.start_extension(
        "--inspector", slow_path, prefix=as_service_user("+net_admin,+net_raw,+bpf,+perfmon")
    )
    laboratory.wait_until_proxied()
    pathlib.Path(slow).touch()
    laboratory.start([script, THERE4, str(PEER_PORT)], name="fetch")
    eventually(
        lambda: any(
            event.get("context", {}).get("app_id") == script
            for event in laboratory.events.since()
        ),
        "the process is named",
    )
    assert extension.stop() == 0


def test_the_inspector_names_what_it_lacks(laboratory):
    program = laboratory.program_path("ostravel-inspector")
    alone = laboratory.start([program], name="ostravel-inspector")
    assert alone.wait() == 2
    assert alone.errors.since() == [
        "ostravel-inspector: no socket was passed: start it with systemctl start "
        "ostravel-inspector.socket"
    ]
    path = laboratory.path("inspector.sock")
    for capabilities, missing in (
        ("+net_admin", "CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH"),
        ("+sys_ptrace", "CAP_DAC_READ_SEARCH"),
    ):
        weak = laboratory.start(
            [PYTHON, "-c", PASS_SOCKET, path, *as_service_user(capabilities), program],
            name="ostravel-inspector",
        )
        assert weak.wait() == 2
        assert weak.errors.since() == [
            f"ostravel-inspector: the permission to look at other processes ({missing}) is "
            "missing: run as root"
        ]


# capabilities(7)
CAPABILITIES_KEPT = {
    "CAP_DAC_OVERRIDE": 1,
    "CAP_DAC_READ_SEARCH": 2,
    "CAP_NET_ADMIN": 12,
    "CAP_SYS_PTRACE": 19,
    "CAP_SYS_RESOURCE": 24,
    "CAP_PERFMON": 38,
    "CAP_BPF": 39,
}


def threads_of(processes):
    """The status of each of their threads (proc_pid_status(5))."""
    for process in processes:
        for thread in os.listdir(f"/proc/{process}/task"):
            with open(f"/proc/{process}/task/{thread}/status") as file:
                yield dict(line.rstrip("\n").split(":\t", 1) for line in file)


# ThreadSanitizer has a thread of its own from before main().
@pytest.mark.uninstrumented
def test_it_gives_up_what_it_does_not_use(laboratory):
    _, extension = laboratory.start_system()
    kept = sum(1 << number for number in CAPABILITIES_KEPT.values())
    for status in threads_of([extension.pid, *children_of(extension)]):
        for kind in ("CapEff", "CapPrm", "CapBnd", "CapAmb"):
            assert int(status[kind], 16) & ~kept == 0, (status["Name"], kind)
        assert status["NoNewPrivs"] == "1", status["Name"]


# Sanitizers use other calls, so programs with them have no filters.
@pytest.mark.uninstrumented
def test_its_system_calls_are_restricted(laboratory):
    _, extension = laboratory.start_system()
    names = set()
    for status in threads_of([extension.pid, *children_of(extension)]):
        name = status["Name"]
        names.add(name)
        # Another filter for those that carry connections.
        filters = "2" if name.startswith("loop-") else "1"
        assert (status["Seccomp"], status["Seccomp_filters"]) == ("2", filters), name
    assert {"ostravel-extens", "ostravel-guard", "loop-0", "names"} <= names


# The service manager


class ServiceManager:
    """Plays the service manager: receives its notifications."""

    def __init__(self, laboratory):
        self.path = laboratory.path("notify")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)
        self.socket.settimeout(GENEROUS_SECONDS)
        self.received = []

    def wait(self, wanted):
        """The first assignment from now on that begins with this."""
        while True:
            assignments = self.socket.recv(4096).decode().split("\n")
            self.received += assignments
            for assignment in assignments:
                if assignment.startswith(wanted):
                    return assignment

    def prefix(self):
        return ("env", f"NOTIFY_SOCKET={self.path}")


def test_it_reports_readiness_and_the_gate(laboratory):
    manager = ServiceManager(laboratory)
    extension = laboratory.start_extension(prefix=manager.prefix())
    manager.wait("READY=1")
    closed = "STATUS=Gate closed: nothing answers on 127.0.0.1:8080; connections go direct"
    if closed not in manager.received:
        manager.wait(closed)
    manager.wait("WATCHDOG=1")
    sidecar = laboratory.start_sidecar()
    assert manager.wait("STATUS=Gate open: the local proxy is ") == (
        "STATUS=Gate open: the local proxy is "
        f"{laboratory.program_path('ostravel-sidecar')} (process {sidecar.pid}, user root)"
    )
    sidecar.stop()
    manager.wait(closed)
    assert manager.received.count("READY=1") == 1
    assert extension.stop() == 0
    manager.wait("STOPPING=1")


@pytest.mark.parametrize("program", ["ostravel-sidecar", "ostravel-monitor"])
def test_the_companions_report_readiness(laboratory, program):
    manager = ServiceManager(laboratory)
    options = ["--socket", laboratory.socket_path] if program == "ostravel-monitor" else []
    where = laboratory.socket_path if options else "127.0.0.1:8080"
    started = laboratory.start(
        [*manager.prefix(), "WATCHDOG_USEC=100000", laboratory.program_path(program), *options]
    )
    manager.wait("READY=1")
    assert f"STATUS=Listening on {where}" in manager.received
    for _ in range(3):
        manager.wait("WATCHDOG=1")
    assert started.stop() == 0
    manager.wait("STOPPING=1")


def test_without_a_journal_the_log_goes_to_standard_error(laboratory):
    extension = laboratory.start_extension(
        "--log", "journal", prefix=("sh", "-c", 'mount -t tmpfs tmpfs /run; exec "$@"', "sh")
    )
    line = "OstravelProxy: There is no journal: the log goes to standard error"
    assert line in errors_of(extension)
    assert extension.stop() == 0


# Files


def test_it_warns_of_keys_and_values_that_have_no_effect(laboratory):
    path = laboratory.write_configuration(
        '{\n  "monitoringSocketPath": 5,\n    "monitoringSocket": "/m"\n}\n'
    )
    extension = laboratory.run_extension("--configuration", path)
    extension.expect(extension.errors, "Rules set successfully")
    assert [line for line in errors_of(extension) if path in line] == [
        f'OstravelProxy: {path}:3:5: "monitoringSocket" is unknown and has no effect; the keys '
        'are "monitoringSocketPath" and "logLevel"',
        f'OstravelProxy: {path}:2:3: "monitoringSocketPath" must be a text, such as '
        '"/run/ostravel/monitoring.sock"; no event is sent',
    ]
    assert extension.stop() == 0


def test_it_counts_registrations_and_warns_of_useless_ones(laboratory):
    link = laboratory.path("link")
    os.symlink("/usr/bin/curl", link)
    laboratory.register({link: "a", "/nowhere/program": "b", "/usr/bin/curl": "c"})
    extension = laboratory.start_extension()
    texts = [text for _, text in log_lines(extension)]
    assert "OstravelProxy: Registrations in force count=3" in texts
    place = r"OstravelProxy: /etc/ostravel/applications\.d/test\.json:1:\d+: "
    warnings = [text for text in texts if re.match(place, text)]
    assert len(warnings) == 2
    assert '"/nowhere/program" does not exist' in warnings[0]
    assert warnings[1].endswith('register "/usr/bin/curl"')
    assert extension.stop() == 0


# What is in the way


def test_a_table_of_the_same_name_is_reported(laboratory):
    laboratory.here.run("nft", "add", "table", "inet", "ostravel")
    extension = laboratory.run_extension()
    assert last_line(extension) == (
        "ostravel-extension: there is already an nftables table inet ostravel, which another "
        "program has made: if it is not needed, delete it with: nft delete table inet ostravel"
    )
    assert laboratory.here.run("nft", "list", "tables") == "table inet ostravel\n"


def test_a_foreign_table_for_names_is_reported(laboratory):
    laboratory.here.run("nft", "add", "table", "inet", "ostravel-names")
    remedy = (
        "there is already an nftables table inet ostravel-names, which another program has made: "
        "if it is not needed, delete it with: nft delete table inet ostravel-names"
    )
    status, lines = check(laboratory)
    ((level, finding),) = findings(lines, "names")
    assert (status, level) == (1, "warning")
    assert finding.startswith(remedy)
    extension = laboratory.start_extension()
    assert f"OstravelProxy: Host names are not observed: {remedy}" in errors_of(extension)
    assert extension.stop() == 0


@pytest.mark.parametrize(
    # UndefinedBehaviorSanitizer needs some descriptors of its own.
    "limit", [pytest.param(20, marks=pytest.mark.uninstrumented), 60, 256]
)
def test_a_low_limit_of_open_files_is_reported(laboratory, limit):
    prefix = ("prlimit", f"--nofile={limit}:{limit}")
    extension = laboratory.run_extension(prefix=prefix)
    assert extension.wait() == 2
    obstacle = (
        f"the limit of {limit} open files is too low: at least 288 are needed; raise it with ulimit "
        "-n, or with LimitNOFILE= of the unit"
    )
    assert extension.errors.since() == [f"ostravel-extension: {obstacle}"]
    status, lines = check(laboratory, *prefix)
    assert status == 2
    assert findings(lines, "open files") == [("problem", obstacle)]


def test_it_runs_with_the_fewest_open_files(laboratory):
    laboratory.start_monitor()
    laboratory.start_sidecar()
    extension = laboratory.start_extension(prefix=("prlimit", "--nofile=288:288"))
    laboratory.wait_until_proxied()
    assert extension.stop() == 0


# UndefinedBehaviorSanitizer needs some descriptors of its own.
@pytest.mark.uninstrumented
@pytest.mark.parametrize("program", ["ostravel-sidecar", "ostravel-monitor"])
def test_the_companions_report_a_low_limit_of_open_files(laboratory, program):
    options = ["--socket", laboratory.socket_path] if program == "ostravel-monitor" else []
    started = laboratory.start(
        ["prlimit", "--nofile=6:6", laboratory.program_path(program), *options]
    )
    assert started.wait() == 2
    (line,) = started.errors.since()
    assert re.fullmatch(f"{program}: .*: Too many open files", line)


# The check


def check(laboratory, *prefix, options=()):
    """The status of --check, and its lines as triples of level, subject and finding."""
    done = laboratory.run_application(
        *prefix, laboratory.program_path("ostravel-extension"), "--check", *options
    )
    assert done.stderr == b""
    text = done.stdout.decode()
    return done.returncode, [re.split(r"  +", line, maxsplit=2) for line in text.splitlines()[:-2]]


def findings(lines, subject):
    return [(line[0], line[2]) for line in lines if line[1] == subject]


def test_the_check_recognises_the_proxy(laboratory):
    sidecar = laboratory.start_sidecar()
    status, lines = check(laboratory)
    assert status in (0, 1), lines
    ((level, finding),) = findings(lines, "local proxy")
    assert level == "ok"
    assert f"(process {sidecar.pid}, user root) answers CONNECT" in finding
    assert findings(lines, "rules") == [("ok", "the kernel accepts all that would be installed")]
    assert not laboratory.has_rules()


# LeakSanitizer does not work under strace.
@pytest.mark.uninstrumented
def test_the_check_succeeds_where_all_is_well(laboratory):
    laboratory.replace_in_etc("resolv.conf", "nameserver 192.0.2.53\n")
    laboratory.start_sidecar()
    # Whether the clock of this machine is synchronised is not the subject.
    synchronised = ("strace", "-f", "-qq", "-o", "/dev/null",
                    "-e", "trace=adjtimex,clock_adjtime",
                    "-e", "inject=adjtimex,clock_adjtime:retval=0")  # fmt: skip
    status, lines = check(laboratory, *laboratory.with_etc(), *synchronised)
    assert [line for line in lines if line[0] != "ok"] == []
    subjects = {subject for _, subject, _ in lines}
    assert subjects == {"permissions", "configuration", "open files", "clocks", "loopback", "rules",
                        "packet queue", "packet marks", "names", "applications",
                        "local proxy"}  # fmt: skip
    assert status == 0


def test_the_check_says_what_is_wrong_with_the_listener(laboratory):
    status, lines = check(laboratory)
    ((level, finding),) = findings(lines, "local proxy")
    assert (status, level) == (1, "warning")
    assert finding.startswith("nothing answers on 127.0.0.1:8080")
    laboratory.start_sidecar(user=12345)
    status, lines = check(laboratory)
    ((level, finding),) = findings(lines, "local proxy")
    assert (status, level) == (1, "warning")
    assert "for an ordinary user" in finding


def test_the_check_sees_a_running_instance(laboratory):
    laboratory.start_system()
    _, lines = check(laboratory)
    assert findings(lines, "rules") == [
        ("ok", "an instance is running: it owns the nftables table inet ostravel")
    ]
    assert findings(lines, "local proxy")[0][0] == "ok"
    assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"


def test_the_check_finds_problems(laboratory):
    laboratory.here.run("nft", "add", "table", "inet", "ostravel")
    status, lines = check(laboratory)
    ((level, finding),) = findings(lines, "rules")
    assert (status, level) == (2, "problem")
    assert "nft delete table inet ostravel" in finding
    status, lines = check(laboratory, *with_capabilities("+sys_ptrace"))
    ((level, finding),) = findings(lines, "permissions")
    assert (status, level) == (2, "problem")
    assert "CAP_NET_ADMIN" in finding


def test_the_check_says_where_names_come_from(laboratory):
    laboratory.replace_in_etc("resolv.conf", "nameserver 192.0.2.53\nnameserver ::1\n")
    _, lines = check(laboratory, *laboratory.with_etc())
    assert findings(lines, "names")[0] == (
        "ok",
        "from DNS answers; those of the resolvers in /etc/resolv.conf (192.0.2.53, ::1) hold for "
        "the whole machine",
    )
    _, lines = check(laboratory, *laboratory.with_etc(), options=("--names", "off"))
    assert findings(lines, "names") == [("ok", "not observed (--names off)")]
    laboratory.replace_in_etc("resolv.conf", "# none\n")
    status, lines = check(laboratory, *laboratory.with_etc())
    level, finding = findings(lines, "names")[0]
    assert (status, level) == (1, "warning")
    assert finding.startswith("/etc/resolv.conf names no resolver")


# The rules


def rules_of(listing):
    """The rules of each chain, as nft(8) lists them, without what differs at each start."""
    chains = {}
    for line in map(str.strip, listing.splitlines()):
        if found := re.match(r"chain (\w+) {", line):
            chain = chains.setdefault(found.group(1), [])
        elif chains and line not in ("", "}"):
            chain.append(re.sub(r"redirect to :\d+", "redirect to :PORT", line))
    # Some kernels lack the expression that queues.
    chains.pop("hold", None)
    return chains


def test_the_dry_run_prints_the_rules_of_a_real_run(laboratory):
    program = laboratory.program_path("ostravel-extension")
    done = laboratory.run_application("setpriv", "--bounding-set=-all", program, "--dry-run")
    assert (done.returncode, done.stderr) == (0, b"")
    lines = done.stdout.decode().splitlines()
    queued = "add rule inet ostravel hold queue flags bypass to 43100"
    assert queued in lines
    # nft(8) would take a table that it owns with it.
    script = "\n".join(line for line in lines if line != queued).replace("{ flags owner; }", "")
    laboratory.there.run("nft", "-f", "-", given=script + "\n")

    def rules(namespace):
        tables = ("ostravel", "ostravel-translation")
        return [rules_of(namespace.run("nft", "list", "table", "inet", name)) for name in tables]

    planned = rules(laboratory.there)
    # Printed is what is installed beside such rules of another program.
    for hook, priority in (("output", "filter"), ("prerouting", "raw")):
        chain = f"ip other {hook}"
        commands = f"add table ip other; add chain {chain} {{ type filter hook {hook} priority {priority}; }}"
        laboratory.here.run("nft", f"{commands}; add rule {chain} ip daddr 192.0.2.1 drop")
    extension = laboratory.start_extension()
    assert planned == rules(laboratory.here)
    assert extension.stop() == 0
