#!/usr/bin/env bash
# Runs the test suites under sanitizers:
#   asan  every unit, host, end-to-end, stress, fault and security test
#         under AddressSanitizer + UndefinedBehaviorSanitizer, with
#         LeakSanitizer on;
#   tsan  the same tests under ThreadSanitizer (the engine's shared
#         counters and flags, loopers, endpoints and transports);
#   all   both (the default).
# Tests labelled "slow" are left out: they wait out 30-second timers and
# exercise nothing the fast tests do not. The stress test runs fewer copies
# (XFERFM_STRESS_TRANSFERS, default 200 here) since each costs more under a
# sanitizer. Build directories go under XFERFM_BUILD_ROOT (default build/);
# each run's output is kept in <build dir>/ctest.log.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-all}
jobs=$(nproc)
build_root=${XFERFM_BUILD_ROOT:-build}
export XFERFM_STRESS_TRANSFERS=${XFERFM_STRESS_TRANSFERS:-200}

scripts/install-deps.sh

run_asan() {
  local dir=$build_root/asan
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXFERFM_WERROR=ON -DXFERFM_BUILD_EXAMPLES=OFF \
        -DXFERFM_SANITIZE=address,undefined
  cmake --build "$dir" -j"$jobs"
  ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1:strict_string_checks=1" \
  UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 900 -LE "slow|packaging" 2>&1 |
    tee "$dir/ctest.log"
}

run_tsan() {
  local dir=$build_root/tsan
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXFERFM_WERROR=ON -DXFERFM_BUILD_EXAMPLES=OFF \
        -DXFERFM_SANITIZE=thread
  cmake --build "$dir" -j"$jobs"
  TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp" \
    ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 900 -LE "slow|packaging" 2>&1 |
    tee "$dir/ctest.log"
}

case "$mode" in
  asan) run_asan ;;
  tsan) run_tsan ;;
  all) run_asan; run_tsan ;;
  *) echo "usage: $0 [asan|tsan|all]" >&2; exit 2 ;;
esac
