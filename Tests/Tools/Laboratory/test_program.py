"""Child processes: their output, how they end, and the messages when they fail."""

import os
import pathlib
import select
import signal
import subprocess
import sys
import threading
import time

import pytest

from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.problem import Problem
from Laboratory.program import Program, find_missing, run

UNKNOWN_USER = 54321


@pytest.fixture
def start():
    started = []

    def start(script, *arguments, **how):
        started.append(Program(["sh", "-c", script, "sh", *arguments], **how))
        return started[-1]

    yield start
    for program in started:
        program.close()


def test_output_and_errors_are_kept_apart(start):
    program = start("echo out; echo err >&2")
    assert program.wait() == 0
    assert program.output.since() == ["out"]
    assert program.errors.since() == ["err"]


def test_a_log_has_output_and_errors(start, tmp_path):
    program = start("echo out; echo err >&2", log=tmp_path / "log")
    assert program.expect(program.errors, "err") == "err"
    assert program.output.since() == ["out", "err"]


def test_each_line_is_shown_as_it_comes(start):
    shown = []
    program = start("echo one; echo two", on_output=shown.append)
    program.wait()
    assert shown == ["one", "two"]


def test_input_is_passed_on(start):
    program = start("read line; echo got $line", has_input=True)
    program.tell("this")
    assert program.expect(program.output, "got") == "got this"


def test_errors_can_be_left_unread_at_first(start):
    program = start("echo err >&2", reads_errors=False)
    assert program.process.wait() == 0
    assert program.errors.since() == []
    program.read_errors()
    assert program.expect(program.errors, "err") == "err"


def test_a_program_runs_as_another_user(start):
    program = start("id -u; id -g; id -G", user=UNKNOWN_USER)
    program.wait()
    assert program.output.since() == [str(UNKNOWN_USER)] * 3


def test_a_program_gets_the_given_environment(start):
    program = start("echo $WORD", environment={"PATH": os.environ["PATH"], "WORD": "given"})
    program.wait()
    assert program.output.since() == ["given"]


@pytest.mark.parametrize("user", [None, UNKNOWN_USER])
def test_a_program_dies_with_its_parent(user):
    script = (
        "from Laboratory.program import Program; import os\n"
        f"print(Program(['sleep', '1000'], user={user}).pid, flush=True)\n"
        "input(); os._exit(0)"
    )
    with subprocess.Popen(
        [sys.executable, "-B", "-c", script],
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
    ) as parent:  # fmt: skip
        pid = int(parent.stdout.readline())
        child = os.pidfd_open(pid)
        # What makes it die with its parent runs before the program itself.
        while pathlib.Path(f"/proc/{pid}/comm").read_text() != "sleep\n":
            time.sleep(0.01)
        parent.communicate("end\n", timeout=GENEROUS_SECONDS)
    with open(child) as end:
        assert select.select([end], [], [], GENEROUS_SECONDS)[0]


def test_a_stopped_program_returns_its_status(start):
    program = start("trap 'exit 7' TERM; echo ready; while :; do sleep 0.01; done")
    program.expect(program.output, "ready")
    assert program.stop() == 7
    assert program.is_ending


def test_a_program_that_does_not_stop_is_killed(start):
    program = start("trap '' TERM; echo ready; while :; do sleep 0.01; done")
    program.expect(program.output, "ready")
    assert program.stop(seconds=0.05) == -signal.SIGKILL
    assert program.ending() == "was ended by SIGKILL"


def test_a_program_that_has_ended_can_be_stopped_and_closed(start):
    program = start("exit 3")
    program.process.wait()
    assert program.stop() == 3
    program.close()
    assert program.ending() == "ended with status 3"


def test_the_end_is_reported_once(start):
    ended = threading.Event()
    seen = []
    program = start(":", on_end=lambda program: (seen.append(program), ended.set()))
    assert ended.wait(GENEROUS_SECONDS)
    assert seen == [program]
    assert not program.is_ending


def test_a_silent_end_is_a_problem_with_the_last_words(start):
    program = start("echo why >&2; exit 1")
    with pytest.raises(Problem) as caught:
        program.expect(program.output, "ready")
    assert str(caught.value) == "sh ended with status 1\n  why"
    assert caught.value.status == 1


def test_a_refusal_to_run_is_reported_in_its_own_words(start):
    program = start("echo not here >&2; exit 2")
    with pytest.raises(Problem) as caught:
        program.expect(program.output, "ready")
    assert str(caught.value) == "not here"
    assert caught.value.status == 2


def test_a_program_that_goes_on_without_a_word_is_a_problem(start):
    program = start("exec >&-; exec sleep 1000", name="mute")
    with pytest.raises(Problem, match='^mute did not say "ready"$'):
        program.expect(program.output, "ready")
    assert program.process.poll() == -signal.SIGKILL


def test_a_system_program_returns_its_output():
    assert run("cat", given="text\n") == "text\n"


def test_a_failing_program_is_a_problem_with_its_last_line():
    with pytest.raises(Problem, match=r"^sh: second \(sh -c "):
        run("sh", "-c", "echo first >&2; echo second >&2; exit 1")


def test_missing_programs_are_named(tmp_path):
    own = tmp_path / "own"
    own.touch(mode=0o755)
    assert find_missing(tmp_path, ["own"], {"sh": "dash"}) is None
    assert find_missing(tmp_path, ["own", "other"], {}) == (
        f"other is not in {tmp_path}: build it first"
    )
    assert find_missing(tmp_path, ["own"], {"no-such-program": "no-package"}) == (
        "the program no-such-program is missing: install the package no-package"
    )
