#!/usr/bin/env python3
"""Runs the signing script with tools that write down how they are called."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).parents[3] / "Packaging/macos/sign-and-notarise.sh"
EXTENSION = "Contents/Library/SystemExtensions/com.ostravel.desktop.extension.systemextension"
TOOL = """#!/bin/bash
echo "${0##*/} $*" >>"$TOOL_LOG"
[[ ${0##*/} != "$FAILING_TOOL" ]]
"""
# What Apple's archiver leaves is looked at by the script.
ARCHIVER = TOOL + 'touch "${@: -1}"\n'


class SigningScript(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.log = self.folder / "log"
        tools = self.folder / "tools"
        tools.mkdir()
        for name in ("codesign", "xattr", "xcrun", "spctl", "ditto"):
            tool = tools / name
            tool.write_text(ARCHIVER if name == "ditto" else TOOL)
            tool.chmod(0o755)
        self.build = self.folder / "build"
        self.application = self.build / "Ostravel.app"
        self.extension = self.application / EXTENSION
        (self.extension / "Contents").mkdir(parents=True)
        (self.build / "entitlements").mkdir()
        for name in ("Host-Development", "Extension-Development", "Host-DeveloperID",
                     "Extension-DeveloperID"):
            (self.build / f"entitlements/{name}.entitlements").write_text("ABCDE12345")
        for name in ("host", "extension"):
            (self.folder / f"{name}.provisionprofile").write_text(f"profile of the {name}")

    def sign(self, kind, *more, failing=""):
        command = [SCRIPT, kind, self.build, "Identity (ABCDE12345)",
                   self.folder / "host.provisionprofile",
                   self.folder / "extension.provisionprofile", *more]
        environment = {**os.environ, "TOOL_LOG": str(self.log), "FAILING_TOOL": failing,
                       "PATH": f"{self.folder / 'tools'}:{os.environ['PATH']}"}
        return subprocess.run(command, text=True, capture_output=True, check=False,
                              env=environment)

    def calls(self, tool):
        lines = self.log.read_text().splitlines() if self.log.exists() else []
        return [line for line in lines if line.split()[0] == tool]

    def expected_signature(self, bundle, entitlements):
        return ("codesign --force --options runtime --timestamp --sign Identity (ABCDE12345) "
                f"--entitlements {self.build}/entitlements/{entitlements}.entitlements {bundle}")

    def test_development_signs_the_inner_bundle_first_and_nothing_else(self):
        result = self.sign("development")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.calls("codesign")[:2], [
            self.expected_signature(self.extension, "Extension-Development"),
            self.expected_signature(self.application, "Host-Development")])
        self.assertIn("--verify --deep --strict", self.calls("codesign")[2])
        self.assertEqual(self.calls("xcrun"), [])

    def test_each_bundle_carries_its_own_profile(self):
        self.assertEqual(self.sign("development").returncode, 0)
        for bundle, name in ((self.extension, "extension"), (self.application, "host")):
            profile = bundle / "Contents/embedded.provisionprofile"
            self.assertEqual(profile.read_text(), f"profile of the {name}")

    def test_distribution_notarises_staples_and_archives_the_stapled_application(self):
        result = self.sign("distribution", "keychain")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.calls("codesign")[0],
                         self.expected_signature(self.extension, "Extension-DeveloperID"))
        archive = self.build / "Ostravel.zip"
        self.assertEqual(self.calls("xcrun"), [
            f"xcrun notarytool submit {archive} --keychain-profile keychain --wait",
            f"xcrun stapler staple {self.application}"])
        order = [line.split()[0] for line in self.log.read_text().splitlines()]
        self.assertEqual(order[-5:], ["ditto", "xcrun", "xcrun", "ditto", "spctl"])
        self.assertEqual(result.stdout.splitlines()[-1], str(archive))

    def test_a_refused_notarisation_is_the_end(self):
        result = self.sign("distribution", "keychain", failing="xcrun")
        self.assertNotEqual(result.returncode, 0)
        self.assertEqual(len(self.calls("xcrun")), 1)

    def test_a_signature_that_fails_is_the_end(self):
        self.assertNotEqual(self.sign("development", failing="codesign").returncode, 0)
        self.assertEqual(len(self.calls("codesign")), 1)

    def expect_refusal(self, text):
        result = self.sign("development")
        self.assertEqual(result.returncode, 1)
        self.assertIn(text, result.stderr)
        self.assertFalse(self.log.exists())

    def test_without_the_application_nothing_is_done(self):
        self.extension.rename(self.folder / "elsewhere")
        self.expect_refusal("Ostravel.app has not been built")

    def test_without_a_profile_nothing_is_done(self):
        (self.folder / "extension.provisionprofile").unlink()
        self.expect_refusal("no provisioning profile")

    def test_without_a_team_nothing_is_done(self):
        (self.build / "entitlements/Host-Development.entitlements").write_text("XXXXXXXXXX")
        self.expect_refusal("set OSTRAVEL_TEAM_IDENTIFIER")


if __name__ == "__main__":
    sys.exit(unittest.main())
