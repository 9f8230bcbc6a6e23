#!/usr/bin/env bash
# The link benchmark command: xferfm send/serve against an rsync daemon and
# a tar | socat stream through a shaped loopback link (40 ms / 100 Mbit/s
# and 1 ms / 800 Mbit/s), and the local xferfm copy against cp -r and
# rsync -a, written into docs/performance.md. Options as for
# bench/link-compare.sh (--help for the list).
set -euo pipefail
cd "$(dirname "$0")/.."
BENCH_ENTRY=scripts/bench-link.sh exec bench/link-compare.sh "$@"
