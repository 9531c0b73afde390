#!/usr/bin/env python3
"""Runs the signing script with tools that record how they are called.

What the tools print is composed from their manual pages and from published examples, not recorded:
nothing here has run on a Mac. So these tests show that the script handles output of this form
correctly, not that the real output has this form. "What only a Mac can answer" in
Documentation/macos.md says how to record the real one.
"""

import base64
import copy
import datetime
import os
import pathlib
import plistlib
import re
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
# The script inspects what Apple's archiver leaves.
ARCHIVER = TOOL + 'touch "${@: -1}"\n'
# Prints the profile that is decoded, or the certificates of the identity.
SECURITY = """#!/bin/bash
case $1 in
  cms) [[ $2 == -D && $3 == -i ]] && cat "$4" ;;
  find-certificate)
    if [[ $4 != "Identity (QWERTY9876)" ]]; then
      echo "security: SecKeychainSearchCopyNext: The specified item could not be found in the keychain." >&2
      exit 44
    fi
    printf '%s' "$CERTIFICATES" ;;
esac
"""
PROFILER = """#!/bin/bash
cat <<'TEXT'
Hardware:

    Hardware Overview:

      Model Name: MacBook Pro
      Model Identifier: MacBookPro18,3
      Model Number: MKGP3D/A
      Chip: Apple M1 Pro
      Total Number of Cores: 8 (6 performance and 2 efficiency)
      Memory: 16 GB
      System Firmware Version: 11881.81.4
      OS Loader Version: 11881.81.4
      Serial Number (system): ABCDEF1234
      Hardware UUID: 11111111-2222-3333-4444-555555555555
      Provisioning UDID: 00006000-000A11112222801E
      Activation Lock Status: Disabled

TEXT
"""
DEVICE = "00006000-000A11112222801E"
TEAM = "ABCDE12345"
GROUP = TEAM + ".com.ostravel.desktop"
CERTIFICATE = b"\x30\x82\x05\xb8 certificate of the developer"
OTHER_CERTIFICATE = b"\x30\x82\x05\xb8 another one"


def pem(*certificates):
    return "".join("-----BEGIN CERTIFICATE-----\n" + base64.encodebytes(one).decode() +
                   "-----END CERTIFICATE-----\n" for one in certificates)


def entitlements(part, kind):
    """What the build leaves for a bundle, as far as it concerns a profile."""
    identifier = "com.ostravel.desktop" + (".extension" if part == "Extension" else "")
    provider = "app-proxy-provider" + ("-systemextension" if kind == "DeveloperID" else "")
    values = {
        "com.apple.application-identifier": f"{TEAM}.{identifier}",
        "com.apple.developer.team-identifier": TEAM,
        "com.apple.developer.networking.networkextension": [provider],
        "com.apple.security.application-groups": [GROUP],
    }
    if part == "Host":
        values["com.apple.developer.system-extension.install"] = True
    else:
        values["com.apple.security.app-sandbox"] = True
        values["com.apple.security.network.client"] = True
        values["com.apple.security.temporary-exception.sbpl"] = ["(allow network-outbound)"]
    return values


def profile(part, kind):
    """As security(1) decodes it."""
    granted = {name: value for name, value in entitlements(part, kind).items()
               if name.startswith("com.apple.") and "sandbox" not in name
               and "network.client" not in name and "exception" not in name}
    suffix = "-systemextension" if kind == "DeveloperID" else ""
    granted["com.apple.developer.networking.networkextension"] = [
        name + suffix for name in ("packet-tunnel-provider", "app-proxy-provider",
                                   "content-filter-provider", "dns-proxy")]
    granted["com.apple.security.application-groups"] = [GROUP, TEAM + ".*"]
    granted["keychain-access-groups"] = [TEAM + ".*"]
    decoded = {
        "AppIDName": "Ostravel " + part,
        "ApplicationIdentifierPrefix": [TEAM],
        "CreationDate": datetime.datetime(2026, 1, 5, 9, 12, 44),
        "Platform": ["OSX"],
        "IsXcodeManaged": False,
        "DeveloperCertificates": [OTHER_CERTIFICATE, CERTIFICATE],
        "Entitlements": granted,
        "ExpirationDate": datetime.datetime(2099, 1, 5, 9, 12, 44),
        "Name": f"Ostravel {part} {kind}",
        "TeamIdentifier": [TEAM],
        "TeamName": "Example GmbH",
        "TimeToLive": 365,
        "UUID": "99999999-8888-7777-6666-555555555555",
        "Version": 1,
    }
    if kind == "DeveloperID":
        decoded["ProvisionsAllDevices"] = True
    else:
        decoded["ProvisionedDevices"] = ["00008103-0001222233334444", DEVICE]
    return decoded


class SigningScript(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.log = self.folder / "log"
        tools = self.folder / "tools"
        tools.mkdir()
        texts = {"ditto": ARCHIVER, "security": SECURITY, "system_profiler": PROFILER}
        for name in ("codesign", "xattr", "xcrun", "spctl", *texts):
            tool = tools / name
            tool.write_text(texts.get(name, TOOL))
            tool.chmod(0o755)
        # What was signed, as it was at that moment.
        (tools / "codesign").write_text(TOOL + """
while [[ $# -gt 0 ]]; do
  [[ $1 == --entitlements ]] && cp "$2" "${TOOL_LOG%/*}/signed-${2##*/}"
  shift
done
[[ ${0##*/} != "$FAILING_TOOL" ]]
""")
        self.certificates = pem(OTHER_CERTIFICATE, CERTIFICATE)
        self.identity = "Identity (QWERTY9876)"
        self.build = self.folder / "build"
        self.application = self.build / "Ostravel.app"
        self.extension = self.application / EXTENSION
        (self.extension / "Contents").mkdir(parents=True)
        (self.build / "entitlements").mkdir()
        for part in ("Host", "Extension"):
            for kind in ("Development", "DeveloperID"):
                path = self.build / f"entitlements/{part}-{kind}.entitlements"
                path.write_bytes(plistlib.dumps(entitlements(part, kind)))
        self.environment = {}
        self.use_profiles("Development")

    def use_profiles(self, kind):
        for part in ("Host", "Extension"):
            self.write_profile(part, profile(part, kind))

    def write_profile(self, part, decoded):
        path = self.folder / f"{part.lower()}.provisionprofile"
        path.write_bytes(plistlib.dumps(decoded))

    def sign(self, kind, *more, failing="", options=()):
        command = [SCRIPT, *options, kind, self.build, self.identity,
                   self.folder / "host.provisionprofile",
                   self.folder / "extension.provisionprofile", *more]
        environment = {**os.environ, **self.environment, "TOOL_LOG": str(self.log), "FAILING_TOOL": failing,
                       "CERTIFICATES": self.certificates,
                       "PATH": f"{self.folder / 'tools'}:{os.environ['PATH']}"}
        return subprocess.run(command, text=True, capture_output=True, check=False,
                              env=environment)

    def calls(self, tool):
        lines = self.log.read_text().splitlines() if self.log.exists() else []
        return [line for line in lines if line.split()[0] == tool]

    def expected_signature(self, bundle, entitlements):
        return ("codesign --force --options runtime --timestamp --sign Identity (QWERTY9876) "
                f"--entitlements {entitlements}.entitlements {bundle}")

    def signatures(self):
        """Without the temporary folder of the script."""
        return [re.sub(r"--entitlements \S*/", "--entitlements ", line)
                for line in self.calls("codesign")]

    def signed(self, part):
        return plistlib.loads((self.folder / f"signed-{part}.entitlements").read_bytes())

    def test_development_signs_the_inner_bundle_first(self):
        result = self.sign("development")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.signatures()[:2], [
            self.expected_signature(self.extension, "Extension"),
            self.expected_signature(self.application, "Host")])
        for part in ("Host", "Extension"):
            self.assertEqual(self.signed(part), entitlements(part, "Development"))
        self.assertIn("--verify --deep --strict", self.calls("codesign")[2])
        self.assertEqual(self.calls("xcrun"), [])

    def test_each_bundle_carries_its_own_profile(self):
        self.assertEqual(self.sign("development").returncode, 0)
        for bundle, name in ((self.extension, "Extension"), (self.application, "Host")):
            embedded = bundle / "Contents/embedded.provisionprofile"
            self.assertEqual(plistlib.loads(embedded.read_bytes())["AppIDName"], "Ostravel " + name)

    def test_distribution_notarises_staples_and_archives(self):
        self.use_profiles("DeveloperID")
        result = self.sign("distribution", "keychain")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.signatures()[0],
                         self.expected_signature(self.extension, "Extension"))
        self.assertEqual(self.signed("Extension"), entitlements("Extension", "DeveloperID"))
        archive = self.build / "Ostravel.zip"
        self.assertEqual(self.calls("xcrun"), [
            f"xcrun notarytool submit {archive} --keychain-profile keychain --wait",
            f"xcrun stapler staple {self.application}"])
        order = [line.split()[0] for line in self.log.read_text().splitlines()]
        self.assertEqual(order[-5:], ["ditto", "xcrun", "xcrun", "ditto", "spctl"])
        self.assertEqual(result.stdout.splitlines()[-1], str(archive))

    def test_a_refused_notarisation_is_the_end(self):
        self.use_profiles("DeveloperID")
        result = self.sign("distribution", "keychain", failing="xcrun")
        self.assertNotEqual(result.returncode, 0)
        self.assertEqual(len(self.calls("xcrun")), 1)

    def test_a_signature_that_fails_is_the_end(self):
        self.assertNotEqual(self.sign("development", failing="codesign").returncode, 0)
        self.assertEqual(len(self.calls("codesign")), 1)

    def test_without_the_sandbox_only_the_extension_changes(self):
        result = self.sign("development", options=["--without-sandbox"])
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.signed("Host"), entitlements("Host", "Development"))
        kept = entitlements("Extension", "Development")
        for name in ("app-sandbox", "network.client", "temporary-exception.sbpl"):
            del kept["com.apple.security." + name]
        self.assertEqual(self.signed("Extension"), kept)

    def expect_refusal(self, text, kind="development", *more):
        result = self.sign(kind, *more)
        self.assertEqual(result.returncode, 1)
        self.assertIn(text, result.stderr)
        self.assertFalse(self.log.exists())
        return result.stderr

    def test_without_the_application_nothing_is_done(self):
        self.extension.rename(self.folder / "elsewhere")
        self.expect_refusal("Ostravel.app has not been built")

    def test_without_a_profile_nothing_is_done(self):
        (self.folder / "extension.provisionprofile").unlink()
        self.expect_refusal("no provisioning profile")

    def expect_mismatch(self, text, part="Extension", **changes):
        """The message about a profile with these entries; one that is None is missing from it."""
        decoded = copy.deepcopy(profile(part, "Development"))
        for name, value in changes.items():
            decoded[name] = value
            if value is None:
                del decoded[name]
        self.write_profile(part, decoded)
        errors = self.expect_refusal(text)
        self.assertTrue(errors.startswith(str(self.folder / f"{part.lower()}.provisionprofile: ")),
                        errors)
        self.assertTrue(errors.endswith("nothing was signed\n"), errors)

    def granting(self, part, **changes):
        granted = {**profile(part, "Development")["Entitlements"]}
        for name, value in changes.items():
            granted[{"install": "com.apple.developer.system-extension.install",
                     "provider": "com.apple.developer.networking.networkextension",
                     "groups": "com.apple.security.application-groups",
                     "application": "com.apple.application-identifier"}[name]] = value
        return granted

    def test_a_profile_of_another_team_is_refused(self):
        # The characters from the name of the certificate.
        self.expect_mismatch("it belongs to team QWERTY9876, and the build to ABCDE12345",
                             TeamIdentifier=["QWERTY9876"])

    def test_a_profile_of_another_application_is_refused(self):
        self.write_profile("Host", profile("Extension", "Development"))
        self.write_profile("Extension", profile("Host", "Development"))
        errors = self.expect_refusal(f"it is for {TEAM}.com.ostravel.desktop.extension, not for "
                                     f"{TEAM}.com.ostravel.desktop\n")
        self.assertIn(f"not for {TEAM}.com.ostravel.desktop.extension\n", errors)

    def test_a_profile_without_an_entitlement_is_refused(self):
        self.expect_mismatch("it does not grant com.apple.developer.networking.networkextension "
                             "['app-proxy-provider']",
                             Entitlements=self.granting("Extension", provider=["dns-proxy"]))
        self.expect_mismatch("it does not grant com.apple.developer.system-extension.install True",
                             part="Host", Entitlements=self.granting("Host", install=False))

    def test_a_profile_of_another_group_is_refused(self):
        self.expect_mismatch("it does not grant com.apple.security.application-groups",
                             Entitlements=self.granting("Extension", groups=[TEAM + ".other"]))

    def test_a_group_that_begins_with_the_team_needs_no_grant(self):
        decoded = profile("Extension", "Development")
        del decoded["Entitlements"]["com.apple.security.application-groups"]
        self.write_profile("Extension", decoded)
        self.assertEqual(self.sign("development").returncode, 0)

    def test_a_profile_without_this_mac_is_refused(self):
        self.expect_mismatch(f"whose Provisioning UDID is {DEVICE}: register it",
                             ProvisionedDevices=["00008103-0001222233334444"])

    def test_a_profile_of_the_other_kind_is_refused(self):
        self.expect_refusal("it is no Developer ID profile", "distribution", "keychain")
        self.use_profiles("DeveloperID")
        self.expect_refusal("it does not grant com.apple.developer.networking.networkextension")

    def test_an_expired_profile_is_refused(self):
        self.expect_mismatch("it expired on 2026-01-06",
                             ExpirationDate=datetime.datetime(2026, 1, 6, 9, 12, 44))

    def test_the_expiry_of_a_profile_is_in_universal_time(self):
        now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None, microsecond=0)
        hour = datetime.timedelta(hours=1)
        self.environment["TZ"] = "EAST-14"
        self.write_profile("Extension", {**profile("Extension", "Development"),
                                         "ExpirationDate": now + hour})
        self.assertEqual(self.sign("development").returncode, 0)
        self.log.unlink()
        self.environment["TZ"] = "WEST+11"
        self.expect_mismatch("it expired on", ExpirationDate=now - hour)

    def test_a_profile_for_phones_is_refused(self):
        self.expect_mismatch("it is for iOS, xrOS, visionOS, not for OSX",
                             Platform=["iOS", "xrOS", "visionOS"])

    def test_a_profile_without_the_certificate_is_refused(self):
        self.expect_mismatch("it does not contain the certificate that signs",
                             DeveloperCertificates=[OTHER_CERTIFICATE + b"!"])

    def test_an_identity_without_a_certificate_is_refused(self):
        self.identity = "Somebody else"
        self.expect_refusal('the keychain has no certificate "Somebody else"')

    def test_a_file_that_is_not_a_profile_is_refused(self):
        tool = self.folder / "tools/security"
        tool.write_text(SECURITY.replace("cat \"$4\"", "false"))
        self.expect_refusal("host.provisionprofile is not a provisioning profile")

    def test_without_a_team_nothing_is_done(self):
        (self.build / "entitlements/Host-Development.entitlements").write_text("XXXXXXXXXX")
        self.expect_refusal("set OSTRAVEL_TEAM_IDENTIFIER")


if __name__ == "__main__":
    sys.exit(unittest.main())
