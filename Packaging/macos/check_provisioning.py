#!/usr/bin/env python3
"""Compares a decoded provisioning profile with what is about to be signed.

Prints one line for each mismatch. The system says of most of them no more than that it has killed
the program.
"""

import argparse
import base64
import datetime
import pathlib
import plistlib
import re
import sys

APPLICATION = "com.apple.application-identifier"
TEAM = "com.apple.developer.team-identifier"
GROUPS = "com.apple.security.application-groups"
# Granted by a profile only; other entitlements need none.
RESTRICTED = "com.apple.developer."


def certificates_of(text):
    """The certificates of a text in PEM (RFC 7468), as bytes."""
    blocks = re.findall(r"-----BEGIN CERTIFICATE-----(.*?)-----END CERTIFICATE-----", text, re.S)
    return [base64.b64decode(block) for block in blocks]


def grants(granted, wanted):
    """Whether the value of a profile allows this one."""
    if isinstance(wanted, list):
        return isinstance(granted, list) and all(
            any(value == pattern or pattern.endswith("*") and value.startswith(pattern[:-1])
                for pattern in granted) for value in wanted)
    return granted == wanted


def team_problems(profile, wanted):
    teams = profile.get("TeamIdentifier", [])
    if wanted[TEAM] in teams:
        return
    yield (f"it belongs to team {', '.join(teams) or '(none)'}, and the build to {wanted[TEAM]}; "
           "the team is shown under Membership in the developer portal, not in the name of a "
           "development certificate")


def entitlement_problems(profile, wanted):
    granted = profile.get("Entitlements", {})
    if granted.get(APPLICATION) != wanted[APPLICATION]:
        yield f"it is for {granted.get(APPLICATION)}, not for {wanted[APPLICATION]}"
    for name, value in wanted.items():
        if name.startswith(RESTRICTED) and name != TEAM:
            if not grants(granted.get(name), value):
                yield f"it does not grant {name} {value}, but {granted.get(name)}"
    # A group that begins with the team needs no grant, but one that is given has to fit.
    foreign = [group for group in wanted.get(GROUPS, []) if not group.startswith(wanted[TEAM] + ".")]
    needed = wanted.get(GROUPS, []) if GROUPS in granted else foreign
    if not grants(granted.get(GROUPS, []), needed):
        yield f"it does not grant {GROUPS} {needed}"


def device_problems(profile, kind, device):
    everywhere = profile.get("ProvisionsAllDevices", False)
    if kind == "DeveloperID":
        if not everywhere:
            yield "it is no Developer ID profile"
    elif not everywhere and device not in profile.get("ProvisionedDevices", []):
        yield (f"it does not list this Mac, whose Provisioning UDID is {device}: register it in the "
               "developer portal, and make the profile again")


def problems(profile, wanted, kind, certificates, device):
    if "OSX" not in profile.get("Platform", []):
        yield f"it is for {', '.join(profile.get('Platform', [])) or 'no platform'}, not for OSX"
    # plistlib reads times as universal ones without a zone.
    now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
    if profile["ExpirationDate"] <= now:
        yield f"it expired on {profile['ExpirationDate']:%Y-%m-%d}"
    yield from team_problems(profile, wanted)
    yield from entitlement_problems(profile, wanted)
    if not set(certificates) & {bytes(one) for one in profile.get("DeveloperCertificates", [])}:
        yield "it does not contain the certificate that signs"
    yield from device_problems(profile, kind, device)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--kind", required=True, choices=("Development", "DeveloperID"))
    parser.add_argument("--name", required=True, help="of the profile, for people")
    parser.add_argument("--profile", required=True, type=pathlib.Path, help="decoded")
    parser.add_argument("--entitlements", required=True, type=pathlib.Path)
    parser.add_argument("--certificates", required=True, type=pathlib.Path,
                        help="those of the signing identity, in PEM")
    parser.add_argument("--device", required=True, help="the Provisioning UDID of this Mac")
    arguments = parser.parse_args()
    found = list(problems(plistlib.loads(arguments.profile.read_bytes()),
                          plistlib.loads(arguments.entitlements.read_bytes()), arguments.kind,
                          certificates_of(arguments.certificates.read_text()), arguments.device))
    for problem in found:
        print(f"{arguments.name}: {problem}", file=sys.stderr)
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
