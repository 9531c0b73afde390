#!/bin/bash
# Builds the JSON library for both processors and as an archive, because the extension is sandboxed,
# hardened and universal: a library of a package manager is none of it.
set -euo pipefail

readonly version=v2.14
readonly repository=https://github.com/akheron/jansson.git

usage() {
  cat <<'TEXT'
usage: build-jansson.sh FOLDER

Installs the library below FOLDER. Configure the extension with
PKG_CONFIG_PATH=FOLDER/lib/pkgconfig afterwards.
TEXT
}

if [[ $# -ne 1 || $1 == --help ]]; then
  usage
  [[ $# -eq 1 ]] && exit 0
  exit 2
fi

folder=$(mkdir -p "$1" && cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

git clone --quiet --depth 1 --branch "$version" "$repository" "$work/source"
cmake -S "$work/source" -B "$work/build" \
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
