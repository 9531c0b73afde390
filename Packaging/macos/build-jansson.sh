#!/bin/bash
# Builds the JSON library for both processors and as an archive, because the extension is sandboxed,
# hardened and universal: a library of a package manager is none of it.
set -euo pipefail

readonly version=2.14
readonly digest=c739578bf6b764aa0752db9a2fdadcfe921c78f1228c7ec0bb47fa804c55d17b
# The same file at both.
readonly sources=(
  "https://github.com/akheron/jansson/releases/download/v$version/jansson-$version.tar.gz"
  "https://deb.debian.org/debian/pool/main/j/jansson/jansson_$version.orig.tar.gz"
)

usage() {
  cat <<'TEXT'
usage: build-jansson.sh FOLDER

Installs the library below FOLDER. Configure the extension with
PKG_CONFIG_PATH=FOLDER/lib/pkgconfig afterwards.
TEXT
}

if [[ $# -eq 1 && $1 == --help ]]; then
  usage
  exit 0
fi
if [[ $# -ne 1 ]]; then
  usage >&2
  exit 2
fi

folder=$(mkdir -p "$1" && cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

archive=$work/jansson.tar.gz
for source in "${sources[@]}"; do
  curl --fail --silent --show-error --location --output "$archive" "$source" && break
done
if ! echo "$digest  $archive" | shasum -a 256 --check --status; then
  echo "build-jansson.sh: no source has jansson $version with the SHA-256 digest $digest" >&2
  exit 1
fi
tar -xzf "$archive" -C "$work"

cmake -S "$work/jansson-$version" -B "$work/build" \
  -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_INSTALL_PREFIX="$folder" \
  -DCMAKE_OSX_ARCHITECTURES="arm64;x86_64" \
  -DCMAKE_OSX_DEPLOYMENT_TARGET=11.0 \
  -DCMAKE_POLICY_VERSION_MINIMUM=3.5 \
  -DJANSSON_BUILD_SHARED_LIBS=OFF \
  -DJANSSON_BUILD_DOCS=OFF \
  -DJANSSON_WITHOUT_TESTS=ON \
  -DJANSSON_EXAMPLES=OFF
cmake --build "$work/build" --target install
