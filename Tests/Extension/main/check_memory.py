#!/usr/bin/env python3
"""Memory runs out, at one allocation after the other, while the extension plans its rules.

It has to end with a reason, whichever allocation it is.
"""

import argparse
import os
import signal
import subprocess
import sys

# Some hundred runs; the number of allocations is not the same everywhere.
STEP = 19
# This many in a row mean that runs end before the allocation that would fail.
ENOUGH_SUCCESSES = 20
CANNOT_RUN = 2


def plan_rules(program, library, number):
    return subprocess.run(
        [program, "--dry-run"],
        env={**os.environ, "LD_PRELOAD": library, "OSTRAVEL_FAILING_ALLOCATION": str(number)},
        capture_output=True, text=True, timeout=60, check=False,
    )  # fmt: skip


def has_reason(run):
    if run.returncode == CANNOT_RUN:
        return run.stderr.startswith("ostravel-extension: ")
    # Before main() nothing can be caught.
    return run.returncode == -signal.SIGABRT and "bad_alloc" in run.stderr


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", required=True)
    parser.add_argument("--library", required=True)
    arguments = parser.parse_args()
    # There is no allocation with this number.
    expected = plan_rules(arguments.program, arguments.library, 0).stdout
    number = 1
    refusals = successes = 0
    while successes < ENOUGH_SUCCESSES:
        run = plan_rules(arguments.program, arguments.library, number)
        if run.returncode == 0 and run.stdout == expected:
            successes += 1
        elif has_reason(run):
            refusals += 1
            successes = 0
        else:
            print(f"allocation {number}: status {run.returncode}\n{run.stdout[-300:]}{run.stderr}", file=sys.stderr)
            return 1
        number += STEP
    print(f"{refusals} refusals, {number} allocations")
    return 0 if refusals > 50 else 1


if __name__ == "__main__":
    sys.exit(main())
