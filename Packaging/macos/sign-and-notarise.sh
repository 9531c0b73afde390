#!/bin/bash
# Signs the application and the extension in it, inside out, and for distribution has Apple notarise
# the result.
set -euo pipefail

usage() {
  cat <<'TEXT'
usage: sign-and-notarise.sh development  BUILD IDENTITY HOST_PROFILE EXTENSION_PROFILE
       sign-and-notarise.sh distribution BUILD IDENTITY HOST_PROFILE EXTENSION_PROFILE KEYCHAIN_PROFILE

BUILD              the folder that was configured and built; Ostravel.app in it is signed
IDENTITY           the certificate: "Apple Development: ..." or "Developer ID Application: ..."
HOST_PROFILE       provisioning profile of com.ostravel.desktop
EXTENSION_PROFILE  provisioning profile of com.ostravel.desktop.extension
KEYCHAIN_PROFILE   credentials kept by: xcrun notarytool store-credentials KEYCHAIN_PROFILE

"distribution" also notarises, staples, and leaves Ostravel.zip in BUILD.
TEXT
}

if [[ $# -eq 1 && $1 == --help ]]; then
  usage
  exit 0
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

# sign BUNDLE ENTITLEMENTS PROFILE
sign() {
  cp "$3" "$1/Contents/embedded.provisionprofile"
  xattr -cr "$1"
  codesign --force --options runtime --timestamp --sign "$identity" \
    --entitlements "$build/entitlements/$2-$kind.entitlements" "$1"
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
