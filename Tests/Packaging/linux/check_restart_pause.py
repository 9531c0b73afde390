#!/usr/bin/env python3
"""Checks the pauses before the restarts of the services, with a clock of its own."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[3] / "Packaging/debian/restart-pause"
HEALTHY_SECONDS = 60
FIRST_PAUSES = [0, 1, 2, 4, 8, 16, 32, 60, 60]


class RestartPauseTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.now = 1_800_000_000
        self.record = self.folder / "failures"
        # In place of the system's.
        self.write_program("date", 'echo "$NOW"')
        self.write_program("sleep", 'echo "$1" >"$RUNTIME_DIRECTORY/slept"')

    def write_program(self, name, text):
        program = self.folder / "bin" / name
        program.parent.mkdir(exist_ok=True)
        program.write_text(f"#!/bin/sh\n{text}\n")
        program.chmod(0o755)

    def call(self, job, result=""):
        environment = {"PATH": f"{self.folder}/bin:{os.defpath}", "NOW": str(self.now),
                       "RUNTIME_DIRECTORY": str(self.folder), "SERVICE_RESULT": result}
        return subprocess.run([SCRIPT, job], env=environment, capture_output=True, text=True,
                              check=True, timeout=60)

    def pause(self):
        """How long the start that comes now has to wait."""
        slept = self.folder / "slept"
        slept.unlink(missing_ok=True)
        line = self.call("wait").stderr
        seconds = int(slept.read_text()) if slept.exists() else 0
        self.assertEqual("starting again in" in line, seconds > 0)
        self.now += seconds
        return seconds

    def fail(self, result="exit-code", after=0):
        self.now += after
        self.call("ended", result)
        return self.pause()

    def test_the_first_start_does_not_wait(self):
        self.assertEqual(self.pause(), 0)

    def test_pauses_grow_up_to_a_minute(self):
        self.assertEqual([self.fail() for _ in FIRST_PAUSES], FIRST_PAUSES)

    def test_every_kind_of_failure_counts(self):
        for expected, result in zip(FIRST_PAUSES, ("signal", "core-dump", "watchdog", "timeout",
                                                   "oom-kill", "protocol", "resources")):
            self.assertEqual(self.fail(result), expected)

    def test_the_journal_says_why_nothing_runs(self):
        self.fail()
        self.call("ended", "exit-code")
        self.assertEqual(self.call("wait").stderr,
                         "failed 2 times in a row: starting again in 1 s\n")

    def test_an_end_without_failure_clears_the_count(self):
        for _ in range(5):
            self.fail()
        self.call("ended", "success")
        self.assertFalse(self.record.exists())
        self.assertEqual(self.pause(), 0)
        self.assertEqual(self.fail(), 0)

    def test_a_minute_of_running_clears_the_count(self):
        for _ in range(5):
            self.fail()
        self.assertEqual(self.fail(after=HEALTHY_SECONDS), 0)

    def test_a_shorter_run_does_not_clear_the_count(self):
        for _ in range(5):
            self.fail()
        self.assertEqual(self.fail(after=HEALTHY_SECONDS - 1), FIRST_PAUSES[5])

    def test_a_long_pause_is_no_healthy_run(self):
        for _ in range(20):
            self.assertLessEqual(self.fail(), 60)
        self.assertEqual(self.fail(), 60)

    def test_a_clock_that_is_set_back_changes_nothing(self):
        self.fail()
        self.now -= 1_000_000
        self.assertEqual(self.fail(), FIRST_PAUSES[1])

    def test_an_unusable_record_is_no_failure(self):
        for text in ("", "\n", "3", "x 1", "3 x", "-3 4", "3 4 5", "08 09", "$(reboot) 1", "\0",
                     f"{10 ** 30} 1", f"1 {10 ** 30}"):
            self.record.write_text(text)
            self.assertEqual(self.pause(), 0, text)
            self.assertEqual(self.fail(), 0, text)


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    unittest.main()
