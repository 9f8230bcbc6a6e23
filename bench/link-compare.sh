#!/usr/bin/env bash
# Times copies over a shaped loopback link (bench/link, xferfm-link):
# `xferfm send` -> `xferfm serve --once` against an rsync daemon
# (`rsync -a --whole-file`) and a `tar | socat` stream, on three workloads at
# two link profiles; then the local `xferfm copy` against `cp -r` and
# `rsync -a`. Writes the "link benchmark" section of performance.md.
#
#   scripts/bench-link.sh            full run, writes docs/performance.md
#   scripts/bench-link.sh --runs 1 --only small --profile slow --skip-local
#                                    a smoke run (build-bench/bench-results/)
#
# Options: --runs N (default 3), --only LIST (of small, mixed, large),
#   --profile slow|fast|both, --skip-link, --skip-local,
#   --local-only LIST (of many, large), --location shm|disk|both,
#   --tool PATH (this xferfm binary), --out DIR. Any option but --runs and
#   --tool makes a partial run, which writes build-bench/bench-results/
#   unless --out says otherwise.
set -euo pipefail

REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$REPO/build-bench
HERE=$REPO/bench
SCRIPT_NAME=bench-link.sh
. "$HERE/lib/common.sh"
. "$HERE/lib/workloads.sh"
. "$HERE/lib/summary.sh"
. "$HERE/lib/sections.sh"
. "$HERE/lib/report.sh"
. "$HERE/lib/link.sh"
. "$HERE/lib/link-report.sh"

COMMAND_LINE="${BENCH_ENTRY:-bench/link-compare.sh}${*:+ $*}"
RUNS=3 PARTIAL=0
ONLY="small,mixed,large" PROFILES="slow fast" LOCAL_ONLY="many,large" LOCATIONS="shm disk"
DO_LINK=1 DO_LOCAL=1
XFERFM="" OUT_DIR=""
LOCAL_LARGE_BYTES=$((1 << 30))
SETTLE_SECONDS=60

usage() { sed -n '2,18p' "$0" | sed 's/^# \{0,1\}//'; exit "${1:-0}"; }

while [ $# -gt 0 ]; do
  case $1 in
    --runs) RUNS=${2:?--runs needs a number}; shift ;;
    --only) ONLY=${2:?--only needs a list}; PARTIAL=1; shift ;;
    --profile)
      case ${2:-} in
        slow | fast) PROFILES=$2 ;;
        both) PROFILES="slow fast" ;;
        *) die "--profile takes slow, fast or both" ;;
      esac
      PARTIAL=1; shift ;;
    --local-only) LOCAL_ONLY=${2:?--local-only needs a list}; PARTIAL=1; shift ;;
    --location)
      case ${2:-} in
        shm | disk) LOCATIONS=$2 ;;
        both) LOCATIONS="shm disk" ;;
        *) die "--location takes shm, disk or both" ;;
      esac
      PARTIAL=1; shift ;;
    --skip-link) DO_LINK=0 PARTIAL=1 ;;
    --skip-local) DO_LOCAL=0 PARTIAL=1 ;;
    --tool) XFERFM=${2:?--tool needs a path}; shift ;;
    --out) OUT_DIR=${2:?--out needs a directory}; shift ;;
    -h | --help) usage 0 ;;
    *) say "unknown option: $1"; usage 2 ;;
  esac
  shift
done
[[ $RUNS =~ ^[1-9][0-9]*$ ]] || die "--runs takes a positive number"
[[ $ONLY =~ ^(small|mixed|large)(,(small|mixed|large))*$ ]] || die "--only takes small, mixed, large or a comma list"
[[ $LOCAL_ONLY =~ ^(many|large)(,(many|large))*$ ]] || die "--local-only takes many, large or a comma list"
if [ -z "$OUT_DIR" ]; then
  if [ "$PARTIAL" = 1 ]; then OUT_DIR=$BUILD/bench-results; else OUT_DIR=$REPO/docs; fi
fi
mkdir -p "$OUT_DIR"

# The benchmark's own tools (never needed by the tests).
"$REPO/scripts/install-deps.sh" --bench

say "building Release in $BUILD"
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S "$REPO" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DXFERFM_WERROR=ON -DXFERFM_BUILD_TESTS=OFF \
  -DXFERFM_BUILD_EXAMPLES=OFF -DXFERFM_BUILD_BENCHMARKS=ON "${launcher[@]}" >/dev/null
targets=(--target xferfm-link)
[ -z "$XFERFM" ] && targets+=(--target xferfm-cli)
cmake --build "$BUILD" -j2 "${targets[@]}" >"$BUILD/bench-link-build.log" 2>&1 ||
  { tail -20 "$BUILD/bench-link-build.log" >&2; die "build failed (log: $BUILD/bench-link-build.log)"; }
[ -n "$XFERFM" ] || XFERFM=$BUILD/tools/xferfm/xferfm
[ -x "$XFERFM" ] || die "no xferfm binary at $XFERFM"
XFERFM=$(cd "$(dirname "$XFERFM")" && pwd)/$(basename "$XFERFM")
LINK=$BUILD/bench/link/xferfm-link

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/xferfm-link-bench.XXXXXX")
RESULTS=$SCRATCH/runs.tsv
: >"$RESULTS"
SHM_BASE="" DISK_BASE=$BUILD/bench-link-disk.$$ SHAPER_PID=""
cleanup() {
  stop_shaper
  PENDING=()
  [ -n "$SHM_BASE" ] && rm -rf -- "$SHM_BASE"
  rm -rf -- "$DISK_BASE" "$SCRATCH"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

if [ -d /dev/shm ] && [ -w /dev/shm ] && is_tmpfs /dev/shm; then
  SHM_BASE=/dev/shm/xferfm-link-bench.$$
  mkdir -p "$SHM_BASE"
else
  note "/dev/shm is not a writable tmpfs here: the link runs and the shm runs used the disk"
  LOCATIONS=${LOCATIONS/shm/}
fi
mkdir -p "$DISK_BASE"
base_of() { if [ "$1" = shm ] && [ -n "$SHM_BASE" ]; then echo "$SHM_BASE"; else echo "$DISK_BASE"; fi; }

# The link workloads: 1,000 x 4 KiB in 20 dirs; 20 x 1 MiB + 300 x 8 KiB;
# one 100 MiB file.
make_link_workload() {
  local name=$1 root=$2
  mkdir -p "$root"
  case $name in
    small) make_many_files "$root" 1000 4096 50 ;;
    mixed)
      make_many_files "$root/large" 20 $((1 << 20)) 20
      make_many_files "$root/small" 300 8192 300
      ;;
    large) make_file "$root/large.bin" $((100 << 20)) ;;
  esac
}

# The local workloads: 10,000 x 4 KiB in 100 dirs; one large file.
make_local_workload() {
  local name=$1 root=$2
  mkdir -p "$root"
  case $name in
    many) make_many_files "$root" 10000 4096 100 ;;
    large) make_file "$root/large.bin" "$LOCAL_LARGE_BYTES" ;;
  esac
}

# Link runs go through memory (/dev/shm) on both ends, so the link, not a
# disk, is what they measure.
run_link() {
  local base workload profile run tool src dest bytes
  base=$(base_of shm)
  for workload in ${ONLY//,/ }; do
    src=$base/src-$workload
    make_link_workload "$workload" "$src"
    bytes=$(tree_size "$src" | cut -d' ' -f1)
    for profile in $PROFILES; do
      say ""
      say "== link: $(link_workload_label "$workload") over $(profile_label "$profile")"
      for ((run = 1; run <= RUNS; run++)); do
        for tool in xferfm rsync tar; do
          dest=$base/dst-$workload-$profile-$tool-$run
          link_run "$tool" "$profile" "$workload" "$run" "$src" "$dest" "$bytes" ||
            die "$tool failed on $workload over $profile"
          check_copy "$src" "$dest" "$tool"
          rm -rf -- "$dest"  # memory: no settling needed
        done
      done
    done
    rm -rf -- "$src"
  done
}

run_local() {
  local location base workload run tool src dest bytes room
  for location in $LOCATIONS; do
    base=$(base_of "$location")
    for workload in ${LOCAL_ONLY//,/ }; do
      say ""
      say "== local: $(local_workload_label "$workload") on $location"
      case $workload in
        many) room=$((10000 * 8192 + 100 * 4096)) ;;
        large) room=$((LOCAL_LARGE_BYTES + 65536)) ;;
      esac
      if ! ensure_room "$base" $((room * 2)); then
        note "local workload $workload skipped on $location: not enough free space"
        continue
      fi
      src=$base/src-local-$workload
      make_local_workload "$workload" "$src"
      bytes=$(tree_size "$src" | cut -d' ' -f1)
      for ((run = 1; run <= RUNS; run++)); do
        for tool in xferfm cp rsync; do
          ensure_room "$base" "$room" || die "no room left on $location for another copy"
          dest=$base/dst-local-$workload-$tool-$run
          timed_run local "$workload" "$location" "$tool" "$run" "$src" "$dest" "$bytes" ||
            die "$tool failed on local workload $workload"
          check_copy "$src" "$dest" "$tool"
          dispose "$dest"
        done
      done
      dispose "$src"
      is_tmpfs "$base" && purge_pending
    done
    purge_pending
  done
}

say ""
say "== the shaper's own cost (1 GiB of zeros through socat)"
read -r OVERHEAD_DIRECT OVERHEAD_SHAPED < <(shaper_overhead $((1 << 30)))
say "  direct $OVERHEAD_DIRECT Mbit/s, through an unshaped xferfm-link $OVERHEAD_SHAPED Mbit/s"

[ "$DO_LINK" = 1 ] && run_link
[ "$DO_LOCAL" = 1 ] && run_local

cp "$RESULTS" "$OUT_DIR/performance-link-runs.tsv"
print_link_results
write_link_section "$OUT_DIR/performance.md"
