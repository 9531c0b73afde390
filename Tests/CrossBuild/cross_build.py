#!/usr/bin/env python3
"""Builds the application and the extension in it for the Mac, and checks the result.

Everything is built as on a Mac, from the same CMake files, universal and with warnings as errors.
Apple's frameworks are declared in Tests/StandInMac, and their libraries are empty stubs; the C and C++
headers are this machine's (DarwinDeclarations/StandardHeaders.h there says what that leaves
unchecked). What is built this way cannot run anywhere.
"""

import argparse
import os
import pathlib
import plistlib
import re
import shutil
import subprocess
import sys

ARCHITECTURES = ("arm64", "x86_64")
DEPLOYMENT_TARGET = "11.0"
EXTENSION = "com.ostravel.desktop.extension"
PRINCIPAL_CLASS = "OVPacketTunnelProvider"
FRAMEWORKS = ("CoreFoundation", "Foundation", "NetworkExtension", "SystemExtensions")
# The name of a library, and where the system has it.
LIBRARIES = {
    "System": "/usr/lib/libSystem.B.dylib",
    "c++": "/usr/lib/libc++.1.dylib",
    "objc": "/usr/lib/libobjc.A.dylib",
    "jansson": "/usr/lib/libjansson.dylib",
}
# Sources that must be refused, and a part of the error message.
MISTAKES = (
    ("void f(NEAppProxyTCPFlow* flow);\n"
     "void f(NEAppProxyTCPFlow* flow) { [flow readDataWithHandler:nil]; }\n",
     "readDataWithHandler"),
    # Newer than the deployment target, and not guarded.
    ("BOOL f(OSSystemExtensionProperties* found);\n"
     "BOOL f(OSSystemExtensionProperties* found) { return [found isEnabled]; }\n",
     "'isEnabled' is only available on macOS 12.0"),
    # Deprecated before the deployment target.
    ("void f(OSSystemExtensionRequest* request) OV_MACOS_DEPRECATED(10.15, 11.0, \"old\");\n"
     "void g();\n"
     "void g() { f(nil); }\n",
     "'f' is deprecated"),
)
STUB = """--- !tapi-tbd
tbd-version: 4
targets: [ x86_64-macos, arm64-macos ]
install-name: '{name}'
exports:
  - targets: [ x86_64-macos, arm64-macos ]
    symbols: [ {symbol} ]
...
"""


def fail(text):
    sys.exit(f"cross build: {text}")


def run(*command, **options):
    ended = subprocess.run([str(part) for part in command], text=True, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, check=False, **options)
    if ended.returncode != 0:
        fail(" ".join(map(str, command)) + "\n" + ended.stdout[-20000:])
    return ended.stdout


def llvm_tool(name, version):
    path = shutil.which(f"{name}-{version}") or shutil.which(name)
    return path or fail(f"there is no {name}; it comes with the package llvm")


def write_if_changed(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    if not path.exists() or path.read_text() != text:
        path.write_text(text)


def state_of_files(list_for_make):
    """The files that a compilation has read, with their modification times."""
    names = list_for_make.read_text().replace("\\\n", " ").split(":", 1)[1].split()
    paths = [pathlib.Path(name) for name in names]
    return "".join(f"{path} {path.stat().st_mtime_ns if path.exists() else 'gone'}\n"
                   for path in sorted(set(paths)))


class CrossBuild:
    def __init__(self, root, folder, compiler):
        self.root, self.folder, self.compiler = root, folder, compiler
        self.version = re.search(r"version (\d+)", run(compiler, "--version")).group(1)
        self.resources = pathlib.Path(run(compiler, "-print-resource-dir").strip())
        self.libcxx = self.resources.parents[2] / "include/c++/v1"
        self.sysroot = folder / "sysroot"
        # The compiler driver looks for its helpers by Apple's names.
        tools = folder / "tools"
        tools.mkdir(parents=True, exist_ok=True)
        for name, tool in (("lipo", "llvm-lipo"), ("install_name_tool", "llvm-install-name-tool")):
            link = tools / name
            link.unlink(missing_ok=True)
            link.symlink_to(llvm_tool(tool, self.version))
        self.environment = {**os.environ, "PATH": f"{tools}:{os.environ['PATH']}",
                            "PKG_CONFIG_LIBDIR": str(folder / "pkgconfig")}
        self.application = folder / "build/Ostravel.app"

    def make_stubs(self):
        for index, (name, place) in enumerate(LIBRARIES.items()):
            # The linker itself asks for this one.
            symbol = "dyld_stub_binder" if name == "System" else f"__unused{index}"
            write_if_changed(self.sysroot / f"usr/lib/lib{name}.tbd",
                             STUB.format(name=place, symbol=symbol))
        for name in FRAMEWORKS:
            place = f"System/Library/Frameworks/{name}.framework/{name}"
            write_if_changed(self.sysroot / f"{place}.tbd",
                             STUB.format(name="/" + place, symbol=f"__unused{name}"))
        write_if_changed(
            self.folder / "pkgconfig/jansson.pc",
            "Name: jansson\nDescription: JSON\nVersion: 2.14\nLibs: -ljansson\n")

    def precompile_headers(self):
        """Compiles once per architecture, and again when a header, ours or the system's, changed."""
        declarations = self.root / "Tests/StandInMac/DarwinDeclarations"
        header = self.folder / "StandardHeaders.h"
        precompiled = self.folder / "StandardHeaders.h.gch"
        read = self.folder / "StandardHeaders.d"
        key = self.folder / "StandardHeaders.key"
        if precompiled.exists() and key.exists() and key.read_text() == state_of_files(read):
            return
        shutil.copy(declarations / "StandardHeaders.h", header)
        shutil.rmtree(precompiled, ignore_errors=True)
        precompiled.mkdir()
        for architecture in ARCHITECTURES:
            run(self.compiler, "-target", f"{architecture}-apple-macos{DEPLOYMENT_TARGET}",
                f"-mmacosx-version-min={DEPLOYMENT_TARGET}", "-isysroot", self.sysroot,
                "-std=c++20", "-g", "-fblocks", "-fno-objc-arc", "-Werror",
                "-U__APPLE__", "-U__nonnull", "-D__linux__", "-D__x86_64__", "-D_GNU_SOURCE",
                "-Wno-macro-redefined", "-Wno-builtin-macro-redefined",
                "-nostdinc++", "-isystem", self.libcxx, "-isystem", self.resources / "include",
                "-isystem", "/usr/include/x86_64-linux-gnu", "-isystem", "/usr/include",
                f"-I{declarations}", "-x", "objective-c++-header",
                declarations / "StandardHeaders.h", "-MD", "-MF", read,
                "-o", precompiled / f"{architecture}.pch")
        key.write_text(state_of_files(read))

    def configure(self):
        target = f"{ARCHITECTURES[0]}-apple-macos{DEPLOYMENT_TARGET}"
        own = self.root / "Tests/CrossBuild"
        run("cmake", "-G", "Ninja", "-S", self.root, "-B", self.folder / "build",
            "-DCMAKE_SYSTEM_NAME=Darwin", "-DCMAKE_BUILD_TYPE=Debug", "-DBUILD_TESTING=OFF",
            f"-DCMAKE_OSX_ARCHITECTURES={';'.join(ARCHITECTURES)}",
            f"-DCMAKE_OSX_DEPLOYMENT_TARGET={DEPLOYMENT_TARGET}",
            f"-DCMAKE_OSX_SYSROOT={self.sysroot}",
            "-DOSTRAVEL_TEAM_IDENTIFIER=ABCDE12345", "-DOSTRAVEL_BUILD_NUMBER=7",
            # What CMake cannot find out without running a program.
            "-DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY", "-DCMAKE_HAVE_LIBC_PTHREAD=1",
            f"-DCMAKE_CXX_COMPILER={self.compiler}", f"-DCMAKE_CXX_COMPILER_TARGET={target}",
            f"-DCMAKE_OBJCXX_COMPILER={self.compiler}", f"-DCMAKE_OBJCXX_COMPILER_TARGET={target}",
            f"-DCMAKE_AR={llvm_tool('llvm-ar', self.version)}",
            f"-DCMAKE_RANLIB={llvm_tool('llvm-ranlib', self.version)}",
            f"-DCMAKE_PROJECT_ostravel_INCLUDE={own / 'DarwinTools.cmake'}",
            f"-DOSTRAVEL_CROSS_HEADERS={self.folder / 'StandardHeaders.h'}",
            f"-DOSTRAVEL_CLANG_RESOURCES={self.resources}",
            f"-DOSTRAVEL_LIBCXX_HEADERS={self.libcxx}",
            f"-DOSTRAVEL_LIBTOOL={llvm_tool('llvm-libtool-darwin', self.version)}",
            env=self.environment)

    def build(self):
        run("cmake", "--build", self.folder / "build", "--target", "ostravel_application",
            env=self.environment)

    def check_that_mistakes_are_found(self):
        """Wrong sources must be refused, or the build proves nothing."""
        commands = (self.folder / "build/compile_commands.json").read_text()
        if "SystemTCPFlow.mm" not in commands:
            fail("the platform is not built")
        database = run("ninja", "-C", self.folder / "build", "-t", "commands", "ostravel_application")
        command = next(line for line in database.splitlines() if line.endswith("SystemTCPFlow.mm"))
        source = command.split()[-1]
        for number, (text, complaint) in enumerate(MISTAKES):
            wrong = self.folder / f"wrong{number}.mm"
            wrong.write_text("#import <NetworkExtension/NetworkExtension.h>\n"
                             "#import <SystemExtensions/SystemExtensions.h>\n" + text)
            ended = subprocess.run(command.replace(f"-c {source}", f"-fsyntax-only {wrong}"),
                                   shell=True, cwd=self.folder / "build", env=self.environment,
                                   text=True, capture_output=True, check=False)
            if ended.returncode == 0 or complaint not in ended.stderr:
                fail(f"not noticed: {text}\n{ended.stderr}")

    def check_program(self, program):
        lipo = llvm_tool("llvm-lipo", self.version)
        found = run(lipo, "-archs", program).split()
        if sorted(found) != sorted(ARCHITECTURES):
            fail(f"{program.name} is for {found}")
        for architecture in ARCHITECTURES:
            thin = self.folder / f"{program.name}.{architecture}"
            run(lipo, program, "-thin", architecture, "-output", thin)
            loads = run(llvm_tool("llvm-objdump", self.version), "--macho", "--private-headers", thin)
            if not re.search(rf"minos {re.escape(DEPLOYMENT_TARGET)}\b", loads):
                fail(f"{thin.name} does not ask for macOS {DEPLOYMENT_TARGET}")
            undefined = run(llvm_tool("llvm-nm", self.version), "--undefined-only", "--demangle", thin)
            ours = [line for line in undefined.splitlines() if "ostravel::" in line
                    or "_OV" in line or re.search(r"\bstd::__1::.*ostravel", line)]
            if ours:
                fail(f"{thin.name} lacks\n" + "\n".join(ours))
            yield architecture, run(llvm_tool("llvm-nm", self.version), "--defined-only", thin), loads

    def check_application(self):
        contents = self.application / "Contents"
        host = plistlib.loads((contents / "Info.plist").read_bytes())
        for _, _, loads in self.check_program(contents / "MacOS" / host["CFBundleExecutable"]):
            for framework in ("NetworkExtension", "SystemExtensions"):
                if f"{framework}.framework" not in loads:
                    fail(f"the host does not link {framework}")

        # The system finds an extension by its identifier, which is also its file's name.
        extensions = list((contents / "Library/SystemExtensions").iterdir())
        if [path.name for path in extensions] != [f"{EXTENSION}.systemextension"]:
            fail(f"the application contains {extensions}")
        contents = extensions[0] / "Contents"
        information = plistlib.loads((contents / "Info.plist").read_bytes())
        if information["CFBundleIdentifier"] != EXTENSION or information["CFBundleVersion"] != "7":
            fail(f"the extension calls itself {information}")
        for architecture, defined, loads in self.check_program(
                contents / "MacOS" / information["CFBundleExecutable"]):
            # Only the property list refers to it.
            if f"_OBJC_CLASS_$_{PRINCIPAL_CLASS}" not in defined:
                fail(f"{architecture}: the principal class was not linked")
            if "NetworkExtension.framework" not in loads:
                fail("the extension does not link NetworkExtension")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--root", required=True, type=pathlib.Path)
    parser.add_argument("--folder", required=True, type=pathlib.Path)
    parser.add_argument("--compiler", required=True)
    arguments = parser.parse_args()
    cross = CrossBuild(arguments.root.resolve(), arguments.folder.resolve(), arguments.compiler)
    cross.make_stubs()
    cross.precompile_headers()
    cross.configure()
    cross.build()
    cross.check_that_mistakes_are_found()
    cross.check_application()
    print("built", cross.application)


if __name__ == "__main__":
    main()
