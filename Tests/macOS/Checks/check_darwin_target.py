#!/usr/bin/env python3
"""Checks every source of the extension and of its host application for the real target.

No Mac's headers are needed: the frameworks are declared in Declarations and DarwinDeclarations, and
the C and C++ headers are this machine's (DarwinDeclarations/StandardHeaders.h says what that leaves
unchecked). The C++ headers are read once and for all sources.
"""

import argparse
import concurrent.futures
import pathlib
import subprocess
import sys
import tempfile


def sources(root):
    platform = sorted((root / "Platform/macOS").glob("*.mm"))
    host = sorted((root / "Packaging/macos/Host").glob("*.mm"))
    host += sorted((root / "Packaging/macos/Host").glob("*.cpp"))
    core = sorted((root / "Extension/ProxyTunnelCore").glob("*.cpp"))
    core += sorted((root / "Extension/FilterDataProvider").glob("*.cpp"))
    posix = sorted((root / "Platform/POSIX").glob("*.cpp"))
    entry = [root / "Extension/main/main_macos.mm"]
    for found in (platform, host, core, posix):
        if not found:
            sys.exit("no sources found below " + str(root))
    return platform + host + entry + core + posix


def command(compiler, target, root):
    own = root / "Tests/macOS"
    resources = subprocess.run([compiler, "-print-resource-dir"], check=True, text=True,
                               capture_output=True).stdout.strip()
    return [
        compiler, "-target", target, "-std=c++20", "-fblocks", "-fno-objc-arc",
        "-Wall", "-Wextra", "-Wconversion", "-Wshadow", "-Werror",
        # The headers of this machine only agree with themselves when they take the target for it.
        "-U__APPLE__", "-U__nonnull", "-D__linux__", "-D__x86_64__", "-D_GNU_SOURCE",
        "-Wno-macro-redefined", "-Wno-builtin-macro-redefined",
        "-nostdinc++", "-isystem", str(pathlib.Path(resources).parents[2] / "include/c++/v1"),
        "-isystem", resources + "/include",
        "-isystem", "/usr/include/x86_64-linux-gnu", "-isystem", "/usr/include",
        "-I" + str(own / "Declarations"), "-I" + str(own / "DarwinDeclarations"), "-I" + str(root),
    ]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--target", required=True)
    parser.add_argument("--root", required=True, type=pathlib.Path)
    arguments = parser.parse_args()
    base = command(arguments.compiler, arguments.target, arguments.root)
    headers = arguments.root / "Tests/macOS/DarwinDeclarations/StandardHeaders.h"

    with tempfile.TemporaryDirectory() as folder:
        compiled = folder + "/headers.pch"
        subprocess.run(base + ["-x", "objective-c++-header", str(headers), "-o", compiled],
                       check=True)

        def check(source):
            return subprocess.run(
                base + ["-include-pch", compiled, "-x", "objective-c++", "-fsyntax-only",
                        str(source)], text=True, capture_output=True)

        # A source that is wrong has to be found, or the check proves nothing.
        wrong = pathlib.Path(folder) / "wrong.mm"
        wrong.write_text('#import "Platform/macOS/SystemTCPFlow.h"\n'
                         "void f(NEAppProxyTCPFlow* flow) { [flow readDataWithHandler:nil]; }\n")
        if check(wrong).returncode == 0:
            sys.exit("a wrong selector was not noticed")

        failed = False
        with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
            checked = sources(arguments.root)
            for source, result in zip(checked, pool.map(check, checked)):
                if result.returncode != 0:
                    failed = True
                    print(source, result.stdout, result.stderr, sep="\n")
        print(len(checked), "sources checked for", arguments.target)
        sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
