"""The repository's own files, for the checks in this folder."""

import pathlib
import subprocess

SOURCE_SUFFIXES = {".h", ".cpp", ".mm"}


def files(root: pathlib.Path) -> list[pathlib.Path]:
    """Every file that belongs to the repository, tracked or not yet, relative to its root.

    In an exported source tree, which has no git, everything counts except the build folder.
    """
    if (root / ".git").exists():
        command = ["git", "-C", str(root), "ls-files", "-z", "--cached", "--others",
                   "--exclude-standard"]
        listed = subprocess.run(command, check=True, capture_output=True).stdout
        names = [name for name in listed.decode().split("\0") if name]
    else:
        names = [str(path.relative_to(root)) for path in root.rglob("*")
                 if path.relative_to(root).parts[0] != "build"]
    paths = sorted({pathlib.PurePosixPath(name) for name in names})
    return [pathlib.Path(path) for path in paths if (root / path).is_file()]


def report(findings: list) -> int:
    """Prints the findings of a check, and returns its exit status."""
    for finding in findings:
        print(finding)
    return 1 if findings else 0


def sources(root: pathlib.Path) -> list[pathlib.Path]:
    """The C++ and Objective-C++ files among them."""
    return [path for path in files(root) if path.suffix in SOURCE_SUFFIXES]
