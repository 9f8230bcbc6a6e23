#!/usr/bin/env bash
# Profiles one `xferfm copy` of a 1 GiB file and one of 10,000 files of
# 4 KiB on /dev/shm: perf stat (time, page faults, context switches) and a
# flat perf profile by library and by function. Without perf sampling it
# falls back to callgrind on a smaller workload (64 MiB, 1,000 files).
#
#   bench/profile.sh [--tool PATH] [--out DIR]     (default out: build-bench/profile)
set -euo pipefail

REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$REPO/build-bench
. "$REPO/bench/lib/common.sh"
. "$REPO/bench/lib/workloads.sh"

XFERFM="" OUT=$BUILD/profile
while [ $# -gt 0 ]; do
  case $1 in
    --tool) XFERFM=${2:?}; shift ;;
    --out) OUT=${2:?}; shift ;;
    -h | --help) sed -n '2,8p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) die "unknown option: $1" ;;
  esac
  shift
done
if [ -z "$XFERFM" ]; then
  cmake -S "$REPO" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DXFERFM_WERROR=ON -DXFERFM_BUILD_TESTS=OFF \
    -DXFERFM_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$BUILD" -j2 --target xferfm-cli >/dev/null
  XFERFM=$BUILD/tools/xferfm/xferfm
fi
[ -x "$XFERFM" ] || die "no xferfm binary at $XFERFM"
mkdir -p "$OUT"

WORK=$(mktemp -d /dev/shm/xferfm-profile.XXXXXX)
trap 'rm -rf -- "$WORK"' EXIT

if perf record -q -e cpu-clock -o "$WORK/probe.data" true >/dev/null 2>&1; then
  MODE=perf A_BYTES=$((1 << 30)) FILES=10000
else
  command -v valgrind >/dev/null || die "neither perf sampling nor valgrind is available"
  MODE=callgrind A_BYTES=$((64 << 20)) FILES=1000
fi

profile_one() {
  local name=$1 src=$2 report
  report=$OUT/profile-$name.txt
  say "== $name ($MODE)"
  # Report pipes end in head: a closed pipe is expected there.
  set +o pipefail
  {
    echo "# xferfm copy --no-progress of $name on /dev/shm, $(date -u '+%Y-%m-%d %H:%M UTC')"
    if [ "$MODE" = perf ]; then
      mkdir -p "$WORK/stat-$name"
      perf stat -e task-clock,page-faults,context-switches,cpu-migrations \
        "$XFERFM" copy --no-progress "$src" "$WORK/stat-$name" 2>&1 >/dev/null | grep -vE '^ *$'
      mkdir -p "$WORK/rec-$name"
      perf record -q -e cpu-clock -F 2999 -o "$WORK/$name.data" \
        "$XFERFM" copy --no-progress "$src" "$WORK/rec-$name" >/dev/null 2>&1
      echo
      echo "## by library"
      perf report -i "$WORK/$name.data" --no-children --sort dso --stdio 2>/dev/null | grep -E '^ +[0-9]' | head -12
      echo
      echo "## by function (top 40)"
      perf report -i "$WORK/$name.data" --no-children --sort dso,symbol --stdio 2>/dev/null |
        grep -E '^ +[0-9]' | head -40 | cut -c1-160
      echo
      echo "## by thread"
      perf report -i "$WORK/$name.data" --no-children --sort comm --stdio 2>/dev/null | grep -E '^ +[0-9]' | head -8
    else
      mkdir -p "$WORK/cg-$name"
      valgrind --tool=callgrind --callgrind-out-file="$WORK/$name.cg" \
        "$XFERFM" copy --no-progress "$src" "$WORK/cg-$name" >/dev/null 2>&1
      callgrind_annotate --inclusive=no "$WORK/$name.cg" 2>/dev/null | head -60
    fi
  } >"$report"
  set -o pipefail
  cat "$report" >&2
}

mkdir -p "$WORK/big"
make_file "$WORK/big/big.bin" "$A_BYTES"
profile_one "one-$(human_bytes "$A_BYTES" | tr -d ' ')-file" "$WORK/big"
rm -rf -- "$WORK"/big "$WORK"/stat-* "$WORK"/rec-* "$WORK"/cg-*
make_many_files "$WORK/small" "$FILES" 4096 100
profile_one "$FILES-files-of-4KiB" "$WORK/small"
say "reports in $OUT"
