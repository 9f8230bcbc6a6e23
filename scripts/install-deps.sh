#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only when some
# are missing (so a prepared machine pays nothing).
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libjsoncpp-dev            # JSON file list
  libgtest-dev libgmock-dev # tests
  libbenchmark-dev          # micro-benchmarks
  libssl-dev                # SHA-256 for xferfm --verify
  libcli11-dev              # xferfm command-line parsing
  e2fsprogs                 # chattr, for the unremovable-file tests
  man-db groff-base         # man -l, for the manual page test
)

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
