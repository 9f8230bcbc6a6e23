#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only when some
# are missing (so a prepared machine pays nothing).
#   scripts/install-deps.sh          the build and the tests
#   scripts/install-deps.sh --bench  only what scripts/bench-link.sh runs
#                                    beside xferfm (the tests never need it)
set -euo pipefail

bench_packages=(
  rsync socat # the link benchmark's rivals and stream
  time        # /usr/bin/time -v, peak RSS of each side
)

packages=(
  cmake g++ make pkg-config
  libjsoncpp-dev            # JSON file list
  libgtest-dev libgmock-dev # tests
  libbenchmark-dev          # micro-benchmarks
  libssl-dev                # SHA-256 for xferfm --verify
  libcli11-dev              # xferfm command-line parsing
  e2fsprogs                 # chattr, for the unremovable-file tests
  man-db groff-base         # man -l, for the manual page test
  openssh-server openssh-client  # copy over SSH: the tests start their own sshd on 127.0.0.1
)

if [ "${1:-}" = --bench ]; then
  packages=("${bench_packages[@]}")
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}" >&2
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
