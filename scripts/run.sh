#!/usr/bin/env bash
# The main job: builds the xferfm tool and runs its demo, a real copy of a
# generated sample tree through two engines, verified byte for byte.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

build_dir=build/release
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DXFERFM_BUILD_TESTS=OFF >/dev/null
cmake --build "$build_dir" -j"$(nproc)" --target xferfm-cli >/dev/null
exec "$build_dir/tools/xferfm/xferfm" demo "$@"
