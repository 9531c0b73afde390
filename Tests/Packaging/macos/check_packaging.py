#!/usr/bin/env python3
"""Checks what is shipped for macOS: property lists, entitlements and scripts."""

import argparse
import pathlib
import plistlib
import re
import subprocess
import sys

TEAM = "ABCDE12345"
VALUES = {
    "PROJECT_VERSION": "1.2.3",
    "OSTRAVEL_BUILD_NUMBER": "7",
    "OSTRAVEL_TEAM_IDENTIFIER": TEAM,
    "OSTRAVEL_HOST_IDENTIFIER": "com.ostravel.desktop",
    "OSTRAVEL_EXTENSION_IDENTIFIER": "com.ostravel.desktop.extension",
    "OSTRAVEL_APP_GROUP": TEAM + ".com.ostravel.desktop",
}
SOCKET_FOLDER = "/Library/Application Support/Ostravel"
SOCKET_EXCEPTIONS = {
    "com.apple.security.temporary-exception.files.absolute-path.read-write": [SOCKET_FOLDER + "/"],
    "com.apple.security.temporary-exception.sbpl": [
        f'(allow network-outbound (subpath "{SOCKET_FOLDER}"))'],
}
FAILURES = []


def expect(condition, text):
    if not condition:
        FAILURES.append(text)


def load(path):
    """The file as CMake configures it."""
    text = re.sub(r"@(\w+)@", lambda name: VALUES[name.group(1)], path.read_text())
    return plistlib.loads(text.encode())


def check_extension_information(folder, root):
    plist = load(folder / "Extension-Info.plist.in")
    identifier = "com.ostravel.desktop.extension"
    for key, value in {
            "CFBundleIdentifier": identifier,
            "CFBundleExecutable": identifier,
            "CFBundlePackageType": "SYSX",
            "CFBundleShortVersionString": "1.2.3",
            "CFBundleVersion": "7",
            "LSMinimumSystemVersion": "11.0",
    }.items():
        expect(plist.get(key) == value, f"extension: {key} is {plist.get(key)!r}")
    expect(plist.get("NSSystemExtensionUsageDescription"), "extension: no usage description")
    network = plist.get("NetworkExtension", {})
    # The service must be below a group that the extension belongs to.
    expect(network.get("NEMachServiceName", "").startswith(VALUES["OSTRAVEL_APP_GROUP"] + "."),
           "extension: service outside the group")
    classes = network.get("NEProviderClasses", {})
    expect(list(classes) == ["com.apple.networkextension.app-proxy"],
           f"extension: provider classes {list(classes)}")
    for name in classes.values():
        source = root / "Platform/macOS/Provider" / (name + ".mm")
        expect(source.exists() and f"@implementation {name}\n" in source.read_text(),
               f"extension: there is no class {name}")


def check_host_information(folder):
    plist = load(folder / "Host-Info.plist.in")
    for key, value in {
            "CFBundleIdentifier": "com.ostravel.desktop",
            "CFBundleExecutable": "ostravel-host",
            "CFBundlePackageType": "APPL",
            "CFBundleShortVersionString": "1.2.3",
            "CFBundleVersion": "7",
            "LSMinimumSystemVersion": "11.0",
            "OSTRAVELExtensionIdentifier": "com.ostravel.desktop.extension",
    }.items():
        expect(plist.get(key) == value, f"host: {key} is {plist.get(key)!r}")


def check_entitlements(folder):
    providers = {"Development": "app-proxy-provider",
                 "DeveloperID": "app-proxy-provider-systemextension"}
    identifiers = {"Host": "com.ostravel.desktop", "Extension": "com.ostravel.desktop.extension"}
    for kind, provider in providers.items():
        for part, identifier in identifiers.items():
            name = f"{part}-{kind}"
            plist = load(folder / (name + ".entitlements.in"))
            expect(plist.get("com.apple.developer.networking.networkextension") == [provider],
                   f"{name}: provider")
            expect(plist.get("com.apple.application-identifier") == f"{TEAM}.{identifier}",
                   f"{name}: application identifier")
            expect(plist.get("com.apple.security.application-groups") ==
                   [VALUES["OSTRAVEL_APP_GROUP"]], f"{name}: groups")
            # Only the application installs, and only the extension is in the sandbox.
            expect(plist.get("com.apple.developer.system-extension.install", False) ==
                   (part == "Host"), f"{name}: install")
            expect(plist.get("com.apple.security.app-sandbox", False) == (part == "Extension"),
                   f"{name}: sandbox")
            # The exceptions from it admit the folder of monitoring sockets, and nothing else.
            exceptions = {name: value for name, value in plist.items()
                          if name.startswith("com.apple.security.temporary-exception.")}
            expect(exceptions == (SOCKET_EXCEPTIONS if part == "Extension" else {}),
                   f"{name}: exceptions {exceptions}")
            expect(plist.get("com.apple.security.network.client", False) == (part == "Extension"),
                   f"{name}: network client")
            # Notarisation refuses what a debugger may attach to.
            expect(plist.get("com.apple.security.get-task-allow", False) ==
                   (kind == "Development"), f"{name}: get-task-allow")


def check_default_socket(root):
    """The host application's default is within the extension's sandbox."""
    source = (root / "Host/macOS/HostCommand.h").read_text()
    expect(f'"{SOCKET_FOLDER}/"' in source, "host: the folder of sockets differs")


def check_guide(root):
    """Checks that every test that the guide names exists."""
    sys.path.insert(0, str(root / "Tests/Style"))
    import check_named_tests
    named = check_named_tests.named_tests((root / "Documentation/macos.md").read_text())
    expect(named, "the guide names no test")
    for name in sorted(named - check_named_tests.existing_tests(root)):
        expect(False, f"the guide: there is no test {name}")


def check_scripts(folder):
    helped = subprocess.run([str(folder / "check_provisioning.py"), "--help"], text=True,
                            capture_output=True, check=False)
    expect(helped.returncode == 0, "check_provisioning.py: --help")
    for name in ("sign-and-notarise.sh", "build-jansson.sh"):
        script = str(folder / name)
        expect(subprocess.run(["bash", "-n", script]).returncode == 0, f"{name}: syntax")
        helped = subprocess.run([script, "--help"], text=True, capture_output=True)
        expect(helped.returncode == 0 and helped.stdout.startswith("usage: " + name),
               f"{name}: --help")
        bare = subprocess.run([script], text=True, capture_output=True)
        expect(bare.returncode == 2, f"{name}: without arguments")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--root", required=True, type=pathlib.Path)
    root = parser.parse_args().root
    folder = root / "Packaging/macos"
    check_extension_information(folder, root)
    check_host_information(folder)
    check_entitlements(folder)
    check_default_socket(root)
    check_scripts(folder)
    check_guide(root)
    print("\n".join(FAILURES) if FAILURES else "all well")
    sys.exit(1 if FAILURES else 0)


if __name__ == "__main__":
    main()
