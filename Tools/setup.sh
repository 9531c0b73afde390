# Sourced by the commands at the root: installs from Debian's packages what is missing, and builds.
# Quick when nothing is missing.

# Wanted to build and run.
build_packages=(
  build-essential cmake ninja-build pkg-config clang
  libasio-dev libbpf-dev libc-ares-dev libcli11-dev libcpp-httplib-dev libicu-dev
  libjansson-dev libmnl-dev
  libnats-dev libncurses-dev libnetfilter-queue-dev libnftnl-dev libseccomp-dev libsystemd-dev zlib1g-dev
  libgtest-dev libgmock-dev libbenchmark-dev
)
# Wanted by the demonstration.
demonstration_packages=(
  curl iproute2 mount nftables openssl python3 util-linux
)
# Wanted by the tests besides.
test_packages=(
  chromium-headless-shell clang-format clang-tidy dnsmasq-base fish iptables jq libclang-rt-14-dev
  nats-server nginx-light procps prometheus
  python3-pytest python3-pytest-xdist scdoc strace systemd tinyproxy-bin unbound
  gobjc++ libgnustep-base-dev libblocksruntime-dev libc++-dev libc++abi-dev lld llvm
)
# Wanted by ./package.
package_packages=(
  debhelper fakeroot lintian scdoc
)
# Wanted by ./package --arm64.
cross_packages=(
  debootstrap util-linux
)
# Wanted by ./package --test.
package_test_packages=(
  debootstrap iproute2 nats-server python3 systemd-container util-linux
)

say() {
  if [ -t 2 ] && [ -z "${NO_COLOR+set}" ]; then
    printf '\033[1m==> %s\033[0m\n' "$*" >&2
  else
    printf '==> %s\n' "$*" >&2
  fi
}

fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 2
}

# install_missing PACKAGE...
install_missing() {
  local package installed missing=()
  installed=" $(dpkg-query -W -f '${Package}=${db:Status-Status} ' "$@" 2>/dev/null || true)"
  for package in "$@"; do
    [[ $installed == *" $package=installed "* ]] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  [ "$(id -u)" = 0 ] || fail "these packages are missing, install them or run this as root: ${missing[*]}"
  say "installing ${missing[*]}"
  # Services that a package brings must not be started: only our own programs run.
  local log
  log=$(mktemp)
  if ! {
    apt-get update -qq &&
      DEBIAN_FRONTEND=noninteractive RUNLEVEL=1 apt-get install -y -qq --no-install-recommends "${missing[@]}"
  } >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    rm -f "$log"
    fail "the packages could not be installed (above is the end of what apt-get said)"
  fi
  rm -f "$log"
}

# Shows only Ninja's progress, and that only on a terminal.
show_progress() {
  local step
  if [ -t 2 ]; then
    sed --unbuffered --quiet 's/^\[\([0-9]*\/[0-9]*\)\].*/\1/p' | while read -r step; do
      printf '\r    %s ' "$step" >&2
    done
    printf '\r           \r' >&2
  else
    cat >/dev/null
  fi
}

# build PRESET [TARGET...]
build() {
  local preset=$1
  shift
  say "building $preset"
  mkdir -p "build/$preset" 2>/dev/null && [ -w "build/$preset" ] ||
    fail "the folder $PWD/build/$preset cannot be written to: change its owner or its permissions"
  local log
  log=$(mktemp)
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } 2>&1 |
    tee "$log" | show_progress; then
    grep -E 'error|FAILED|Error' "$log" | head -n 30 >&2
    tail -n 15 "$log" >&2
    rm -f "$log"
    fail "the build failed"
  fi
  rm -f "$log"
}

# Namespaces and rules need these permissions; reports what is missing.
require_network_administration() {
  if ! unshare --net true 2>/dev/null; then
    fail "this machine does not permit making network namespaces (CAP_SYS_ADMIN): run as root, outside a container that takes that away"
  fi
  if ! unshare --net sh -c 'ip link set lo up' 2>/dev/null; then
    fail "this machine denies network administration (CAP_NET_ADMIN): run as root, outside a container that takes that away"
  fi
}

# The same for the current namespace; changes nothing in it.
require_network_administration_here() {
  command -v nft >/dev/null || fail "the program nft is missing: install the package nftables"
  if ! nft list tables >/dev/null 2>&1; then
    fail "this network namespace cannot be administered (CAP_NET_ADMIN): run as root, outside a container that takes that away"
  fi
}
