#!/usr/bin/env python3
"""Every source file is formatted as .clang-format says.

Usage: check_format.py ROOT CLANG_FORMAT
"""

import pathlib
import subprocess
import sys

import repository


def main() -> int:
    root, clang_format = pathlib.Path(sys.argv[1]), sys.argv[2]
    paths = [str(path) for path in repository.sources(root)]
    if not paths:
        print("nothing to check", file=sys.stderr)
        return 1
    command = [clang_format, "--dry-run", "-Werror", "--style=file", *paths]
    return subprocess.run(command, cwd=root, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
