#!/usr/bin/env bash
# Times `xferfm copy` against `cp -r` and `tar | tar` on three workloads,
# checks the bandwidth limit, measures how copy time grows with file count
# and file size, and writes performance.md, performance.png and scaling.png.
#
#   bench/compare.sh            full run (about half an hour on a quiet
#                               machine), writes docs/
#   bench/compare.sh --quick    tiny sizes, one run each, writes
#                               build-bench/bench-results/ (proves the script works)
#
# Options: --quick, --runs N, --only A|B|C[,..], --location shm|disk|both,
#   --scaling (only the scaling run), --skip-scaling, --skip-bandwidth,
#   --skip-micro, --tool PATH (use this xferfm binary, build nothing),
#   --out DIR. Any option but --runs and --tool makes a partial run, which
#   writes build-bench/bench-results/ unless --out says otherwise.
set -euo pipefail

REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$REPO/build-bench
HERE=$REPO/bench
. "$HERE/lib/common.sh"
. "$HERE/lib/workloads.sh"
. "$HERE/lib/summary.sh"
. "$HERE/lib/sections.sh"
. "$HERE/lib/report.sh"

COMMAND_LINE="${BENCH_ENTRY:-bench/compare.sh}${*:+ $*}"
RUNS=5 RUNS_GIVEN=0
ONLY="A,B,C"
LOCATIONS="shm disk"
DO_COMPARE=1 DO_SCALING=1 DO_BANDWIDTH=1 DO_MICRO=1
QUICK=0 PARTIAL=0
XFERFM=""
OUT_DIR=""

usage() { sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit "${1:-0}"; }

while [ $# -gt 0 ]; do
  case $1 in
    --quick) QUICK=1 PARTIAL=1 ;;
    --runs) RUNS=${2:?--runs needs a number}; RUNS_GIVEN=1; shift ;;
    --only) ONLY=${2:?--only needs A, B or C}; PARTIAL=1; shift ;;
    --location)
      case ${2:-} in
        shm | disk) LOCATIONS=$2 ;;
        both) LOCATIONS="shm disk" ;;
        *) die "--location takes shm, disk or both" ;;
      esac
      PARTIAL=1; shift ;;
    --scaling) DO_COMPARE=0 DO_BANDWIDTH=0 DO_MICRO=0 PARTIAL=1 ;;
    --skip-scaling) DO_SCALING=0 PARTIAL=1 ;;
    --skip-bandwidth) DO_BANDWIDTH=0 PARTIAL=1 ;;
    --skip-micro) DO_MICRO=0 PARTIAL=1 ;;
    --tool) XFERFM=${2:?--tool needs a path}; shift ;;
    --out) OUT_DIR=${2:?--out needs a directory}; shift ;;
    -h | --help) usage 0 ;;
    *) say "unknown option: $1"; usage 2 ;;
  esac
  shift
done
[[ $RUNS =~ ^[1-9][0-9]*$ ]] || die "--runs takes a positive number"
[[ $ONLY =~ ^[ABC](,[ABC])*$ ]] || die "--only takes A, B, C or a comma list of them"

if [ "$QUICK" = 1 ]; then
  A_BYTES=$((16 << 20)) B_FILES=200 C_FILES=10 C_BYTES=$((1 << 20))
  [ "$RUNS_GIVEN" = 1 ] || RUNS=1
  SCALING_RUNS=1
  SCALING_COUNTS="1 10 100"
  SCALING_SIZES="65536 262144 1048576"
  BANDWIDTH_BYTES=$((8 << 20))
  SETTLE_SECONDS=0
else
  A_BYTES=$((1 << 30)) B_FILES=10000 C_FILES=200 C_BYTES=$((5 << 20))
  SCALING_RUNS=$((RUNS < 3 ? RUNS : 3))
  SCALING_COUNTS="1 10 100 1000 10000 100000"
  SCALING_SIZES=""
  for ((size = 65536; size <= (4 << 30); size *= 4)); do SCALING_SIZES+="$size "; done
  BANDWIDTH_BYTES=$((50 << 20))
  SETTLE_SECONDS=60
fi
BANDWIDTH_KBPS=80000
if [ -z "$OUT_DIR" ]; then
  if [ "$PARTIAL" = 1 ]; then OUT_DIR=$BUILD/bench-results; else OUT_DIR=$REPO/docs; fi
fi
mkdir -p "$OUT_DIR"

# Tools the script itself runs.
missing=()
command -v gnuplot >/dev/null || missing+=(gnuplot-nox)
[ -x /usr/bin/time ] || missing+=(time)
if [ ${#missing[@]} -gt 0 ]; then
  [ "$(id -u)" = 0 ] || die "please install: ${missing[*]}"
  say "installing ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; }
fi

# Release build of the tool (and the micro-benchmarks), two jobs at most.
if [ -z "$XFERFM" ] || [ "$DO_MICRO" = 1 ]; then
  say "building Release in $BUILD"
  cmake -S "$REPO" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DXFERFM_WERROR=ON -DXFERFM_BUILD_TESTS=OFF \
    -DXFERFM_BUILD_EXAMPLES=OFF -DXFERFM_BUILD_BENCHMARKS=ON >/dev/null
  targets=()
  [ -z "$XFERFM" ] && targets+=(--target xferfm-cli)
  [ "$DO_MICRO" = 1 ] && targets+=(--target xferfm-bench)
  cmake --build "$BUILD" -j2 "${targets[@]}" >"$BUILD/bench-build.log" 2>&1 ||
    { tail -20 "$BUILD/bench-build.log" >&2; die "build failed (log: $BUILD/bench-build.log)"; }
fi
[ -n "$XFERFM" ] || XFERFM=$BUILD/tools/xferfm/xferfm
[ -x "$XFERFM" ] || die "no xferfm binary at $XFERFM"
XFERFM=$(cd "$(dirname "$XFERFM")" && pwd)/$(basename "$XFERFM")

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/xferfm-compare.XXXXXX")
RESULTS=$SCRATCH/runs.tsv
: >"$RESULTS"
SHM_BASE="" DISK_BASE=""
cleanup() {
  PENDING=()
  [ -n "$SHM_BASE" ] && rm -rf -- "$SHM_BASE"
  [ -n "$DISK_BASE" ] && rm -rf -- "$DISK_BASE"
  rm -rf -- "$SCRATCH"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Where each location lives. The disk run uses the build directory, which
# sits on the repository's disk.
DISK_BASE=$BUILD/bench-disk.$$
if [[ " $LOCATIONS " == *" shm "* ]]; then
  if [ -d /dev/shm ] && [ -w /dev/shm ] && is_tmpfs /dev/shm; then
    SHM_BASE=/dev/shm/xferfm-bench.$$
  else
    note "/dev/shm is not a writable tmpfs here: the shm runs were skipped"
    LOCATIONS=${LOCATIONS/shm/}
  fi
fi
base_of() { if [ "$1" = shm ]; then echo "$SHM_BASE"; else echo "$DISK_BASE"; fi; }
mkdir -p "$DISK_BASE"
is_tmpfs "$DISK_BASE" && note "the build directory is on tmpfs, so the disk runs measured memory"
[ -n "$SHM_BASE" ] && mkdir -p "$SHM_BASE"

# A source and its copies need room; all copies are kept until the end of
# the workload when they fit, else each round's copies go after the round.
# Sets ROOM_MODE to keep, rolling or skip (not in a subshell: it may
# delete old destinations, which the caller's state must know about).
#   plan_room BASE ROOM_OF_ONE_COPY ALL_COPIES COPIES_PER_ROUND
plan_room() {
  local base=$1 one=$2 copies=$3 per_round=$4
  if ensure_room "$base" $((one * (1 + copies))); then ROOM_MODE=keep
  elif ensure_room "$base" $((one * (1 + per_round))); then ROOM_MODE=rolling
  else ROOM_MODE=skip; fi
}

end_round() {
  local base=$1 mode=$2
  [ "$mode" = rolling ] && purge_pending
  return 0
}

# Between workloads, memory-backed copies go at once; disk copies wait
# until room is needed.
end_workload() { is_tmpfs "$1" && purge_pending; return 0; }

run_compare() {
  local location=$1 base workload tool run src dest bytes mode
  base=$(base_of "$location")
  for workload in ${ONLY//,/ }; do
    say ""
    say "== $(workload_label "$workload") on $location"
    plan_room "$base" "$(workload_room "$workload")" $((3 * RUNS)) 3
    mode=$ROOM_MODE
    if [ "$mode" = skip ]; then
      note "workload $workload skipped on $location: not enough free space"
      continue
    fi
    [ "$mode" = rolling ] && note "workload $workload on $location: not all copies fit, each round's copies were deleted after the round"
    src=$base/src-$workload
    make_workload "$workload" "$src"
    bytes=$(workload_bytes "$workload")
    for ((run = 1; run <= RUNS; run++)); do
      for tool in xferfm cp tar; do
        dest=$base/dst-$workload-$tool-$run
        timed_run compare "$workload" "$location" "$tool" "$run" "$src" "$dest" "$bytes" ||
          die "$tool failed on workload $workload"
        check_copy "$src" "$dest" "$tool"
        dispose "$dest"
      done
      end_round "$base" "$mode"
    done
    dispose "$src"
    end_workload "$base"
  done
}

run_bandwidth() {
  local location=$1 base src dest run runs=$((RUNS < 3 ? RUNS : 3))
  base=$(base_of "$location")
  say ""
  say "== bandwidth: $(human_bytes "$BANDWIDTH_BYTES") with --bandwidth $BANDWIDTH_KBPS on $location"
  plan_room "$base" "$BANDWIDTH_BYTES" "$runs" 1
  if [ "$ROOM_MODE" = skip ]; then
    note "bandwidth check skipped: not enough free space"
    return 0
  fi
  src=$base/src-bandwidth
  mkdir -p "$src"
  make_file "$src/limited.bin" "$BANDWIDTH_BYTES"
  for ((run = 1; run <= runs; run++)); do
    dest=$base/dst-bandwidth-$run
    timed_run bandwidth limit "$location" xferfm "$run" "$src" "$dest" "$BANDWIDTH_BYTES" \
      --bandwidth "$BANDWIDTH_KBPS" || die "xferfm failed the bandwidth run"
    check_copy "$src" "$dest" xferfm
    dispose "$dest"
  done
  dispose "$src"
  end_workload "$base"
}

# One scaling point: KIND X ROOM_BYTES MAKER... (the maker gets the root).
scaling_point() {
  local location=$1 kind=$2 x=$3 room=$4
  shift 4
  local base src dest run tool mode bytes
  base=$(base_of "$location")
  plan_room "$base" "$room" $((2 * SCALING_RUNS)) 2
  mode=$ROOM_MODE
  if [ "$mode" = skip ]; then
    note "scaling point $kind $x skipped on $location: it does not fit in the free space"
    return 0
  fi
  src=$base/src-$kind-$x
  "$@" "$src"
  bytes=$(tree_size "$src" | cut -d' ' -f1)
  for ((run = 1; run <= SCALING_RUNS; run++)); do
    for tool in xferfm cp; do
      dest=$base/dst-$kind-$x-$tool-$run
      timed_run "$kind" "$x" "$location" "$tool" "$run" "$src" "$dest" "$bytes" ||
        die "$tool failed at scaling point $kind $x"
      check_copy "$src" "$dest" "$tool"
      dispose "$dest"
    done
    end_round "$base" "$mode"
  done
  dispose "$src"
  end_workload "$base"
}

files_maker() { make_many_files "$2" "$1" 4096 1000; }
size_maker() { mkdir -p "$2" && make_file "$2/one.bin" "$1"; }

run_scaling() {
  local location=$1 count size
  say ""
  say "== scaling on $location: file count"
  for count in $SCALING_COUNTS; do
    scaling_point "$location" scale-count "$count" $((count * 8192 + 102 * 4096)) files_maker "$count"
  done
  say "== scaling on $location: file size"
  for size in $SCALING_SIZES; do
    scaling_point "$location" scale-size "$size" $((size + 65536)) size_maker "$size"
  done
}

# Run twice: with glibc's allocator defaults, and with the settings the
# xferfm tool applies (64 KiB chunk buffers stay on a heap that is not
# trimmed, so they are not faulted in again for every chunk).
run_micro() {
  say ""
  say "== engine micro-benchmarks"
  local args=(--benchmark_color=false)
  [ "$QUICK" = 1 ] && args+=(--benchmark_min_time=0.05)
  local tuned=glibc.malloc.trim_threshold=33554432:glibc.malloc.mmap_threshold=1048576:glibc.malloc.arena_max=1
  {
    echo "glibc allocator defaults:"
    "$BUILD/bench/xferfm-bench" "${args[@]}" 2>/dev/null | grep -E '^(Benchmark|BM_|-)'
    echo
    echo "GLIBC_TUNABLES=$tuned (as the tool's mallopt calls):"
    GLIBC_TUNABLES=$tuned "$BUILD/bench/xferfm-bench" "${args[@]}" 2>/dev/null | grep -E '^(Benchmark|BM_|-)'
  } >"$OUT_DIR/micro.txt"
  cat "$OUT_DIR/micro.txt" >&2
}

rm -f "$OUT_DIR/micro.txt"
[ "$DO_MICRO" = 1 ] && run_micro
for location in $LOCATIONS; do
  [ "$DO_COMPARE" = 1 ] && run_compare "$location"
  [ "$DO_SCALING" = 1 ] && run_scaling "$location"
  purge_pending
done
if [ "$DO_BANDWIDTH" = 1 ]; then
  set -- $LOCATIONS
  [ $# -gt 0 ] && run_bandwidth "$1"
  purge_pending
fi

SUMMARY=$SCRATCH/summary.tsv
summarize_compare >"$SUMMARY"
print_compare "$SUMMARY"
print_bandwidth
print_scaling
cp "$RESULTS" "$OUT_DIR/performance-runs.tsv"
write_markdown "$SUMMARY"
plot_compare "$SUMMARY"
plot_scaling
