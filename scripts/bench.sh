#!/usr/bin/env bash
# The benchmark command: xferfm against cp and tar, bandwidth check and
# scaling, written to docs/performance.md with its charts. Options as for
# bench/compare.sh (--quick for a smoke run, --help for the list).
set -euo pipefail
cd "$(dirname "$0")/.."
BENCH_ENTRY=scripts/bench.sh exec bench/compare.sh "$@"
