"""The jobs of ./run: python3 Tools/demonstration JOB FOLDER_OF_THE_PROGRAMS [OPTION ...]"""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

import demonstrate  # noqa: E402
import live  # noqa: E402
import shell  # noqa: E402
from Laboratory.problem import Problem  # noqa: E402

JOBS = {"demonstrate": demonstrate.run, "live": live.run, "shell": shell.run}


def main():
    job, programs_folder, *options = sys.argv[1:]
    try:
        return JOBS[job](programs_folder, *options)
    except Problem as problem:
        print(f"run: {problem}", file=sys.stderr)
        return problem.status


if __name__ == "__main__":
    sys.exit(main())
