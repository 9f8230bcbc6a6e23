#!/usr/bin/env bash
# Builds the library, host kit, tool and tests, then runs every test:
# unit, end-to-end, packaging and the few tests labelled "slow".
# Extra arguments go to ctest (for example: -LE slow, -R Upload).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

build_dir=build/test
jobs=$(nproc)
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXFERFM_WERROR=ON
cmake --build "$build_dir" -j"$jobs"
ctest --test-dir "$build_dir" -j"$jobs" --output-on-failure --timeout 600 "$@"
