#!/bin/bash
# Signs the application and the extension in it, inside out, and for distribution has Apple notarise
# the result.
set -euo pipefail

usage() {
  cat <<'TEXT'
usage: sign-and-notarise.sh [--without-sandbox] development  BUILD IDENTITY HOST_PROFILE EXTENSION_PROFILE
       sign-and-notarise.sh [--without-sandbox] distribution BUILD IDENTITY HOST_PROFILE EXTENSION_PROFILE \
                            KEYCHAIN_PROFILE

BUILD              the folder that was configured and built; Ostravel.app in it is signed
IDENTITY           the certificate: "Apple Development: ..." or "Developer ID Application: ..."
HOST_PROFILE       provisioning profile of com.ostravel.desktop
EXTENSION_PROFILE  provisioning profile of com.ostravel.desktop.extension
KEYCHAIN_PROFILE   credentials kept by: xcrun notarytool store-credentials KEYCHAIN_PROFILE

"distribution" also notarises, staples, and leaves Ostravel.zip in BUILD.

The profiles are compared with the build, the certificate and, for development, this Mac; nothing is
signed when one does not fit. With --without-sandbox the extension is signed without the sandbox and
its exceptions, to find out whether it is the sandbox that stops something.
TEXT
}

if [[ $# -eq 1 && $1 == --help ]]; then
  usage
  exit 0
fi
sandbox=yes
if [[ ${1-} == --without-sandbox ]]; then
  sandbox=no
  shift
fi
case ${1-}:$# in
  development:5) kind=Development ;;
  distribution:6) kind=DeveloperID ;;
  *)
    usage >&2
    exit 2
    ;;
esac

fail() {
  echo "sign-and-notarise.sh: $1" >&2
  exit 1
}

build=$2
identity=$3
host_profile=$4
extension_profile=$5
application=$build/Ostravel.app
extension=$application/Contents/Library/SystemExtensions/com.ostravel.desktop.extension.systemextension

[[ -d $extension ]] || fail "$application has not been built; see Documentation/macos.md"
for profile in "$host_profile" "$extension_profile"; do
  [[ -f $profile ]] || fail "there is no provisioning profile $profile"
done
if grep -q XXXXXXXXXX "$build/entitlements/Host-$kind.entitlements"; then
  fail "$build was configured without a team: set OSTRAVEL_TEAM_IDENTIFIER"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$build/entitlements/Host-$kind.entitlements" "$work/Host.entitlements"
cp "$build/entitlements/Extension-$kind.entitlements" "$work/Extension.entitlements"
if [[ $sandbox == no ]]; then
  python3 - "$work/Extension.entitlements" <<'PYTHON'
import pathlib, plistlib, sys
path = pathlib.Path(sys.argv[1])
entitlements = plistlib.loads(path.read_bytes())
of_sandbox = ("app-sandbox", "network.", "temporary-exception.")
path.write_bytes(plistlib.dumps({name: value for name, value in entitlements.items() if not name.startswith(
    tuple("com.apple.security." + part for part in of_sandbox))}))
PYTHON
fi

# The certificates of that name; there may be an expired one beside the one that signs.
security find-certificate -a -c "$identity" -p >"$work/certificates.pem" ||
  fail "the keychain has no certificate \"$identity\""
device=$(system_profiler SPHardwareDataType | awk -F': *' '/Provisioning UDID/ { print $2 }')

# check PROFILE NAME
check() {
  security cms -D -i "$1" >"$work/$2.plist" || fail "$1 is not a provisioning profile"
  python3 "$(dirname "$0")/check_provisioning.py" --kind "$kind" --name "$1" \
    --profile "$work/$2.plist" --entitlements "$work/$2.entitlements" \
    --certificates "$work/certificates.pem" --device "${device:-unknown}"
}

# Both before either is signed, so that all that is wrong is said at once.
fits=yes
check "$host_profile" Host || fits=no
check "$extension_profile" Extension || fits=no
[[ $fits == yes ]] || fail "nothing was signed"

# sign BUNDLE ENTITLEMENTS PROFILE
sign() {
  cp "$3" "$1/Contents/embedded.provisionprofile"
  xattr -cr "$1"
  codesign --force --options runtime --timestamp --sign "$identity" \
    --entitlements "$work/$2.entitlements" "$1"
}

# What contains is signed after what it contains.
sign "$extension" Extension "$extension_profile"
sign "$application" Host "$host_profile"
codesign --verify --deep --strict --verbose=2 "$application"

if [[ $kind == DeveloperID ]]; then
  archive=$build/Ostravel.zip
  ditto -c -k --keepParent "$application" "$archive"
  xcrun notarytool submit "$archive" --keychain-profile "$6" --wait
  xcrun stapler staple "$application"
  # The ticket belongs into the archive that is handed out.
  rm "$archive"
  ditto -c -k --keepParent "$application" "$archive"
  spctl --assess --type execute --verbose=2 "$application"
  echo "$archive"
fi
