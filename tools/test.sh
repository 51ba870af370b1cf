#!/usr/bin/env bash
# Installs what is needed, builds drv_vane and runs every test suite:
#   1. the user-space build and its GoogleTest suites (with the check that the
#      module core compiles under the kernel's constraints);
#   2. the same suites under AddressSanitizer + UndefinedBehaviorSanitizer;
#   3. the same suites under ThreadSanitizer;
#   4. formatting and clang-tidy, then sparse over the Linux-side C files and
#      the libFuzzer targets for about a minute each (tools/fuzz.sh);
#   5. the kernel modules in a real Linux kernel under qemu, x86_64 and
#      arm64 (cross-built), then on two x86_64 debug kernels (KASAN, KCSAN;
#      built once per configuration and cached) with a concurrency stress,
#      and one boot per planted bug proving that each detector reports.
# Each step's wall time and the total are printed at the end, pass or fail.
# A suite that ran no test fails its step (tools/check-ran.sh).
# Set VANE_SKIP_QEMU=1 to leave out step 5.
set -euo pipefail
cd "$(dirname "$0")/.."

runner_log=$(mktemp)
times_log=$(mktemp)
test_start=$SECONDS

# Passes a runner's output through and keeps a copy for the closing total.
tally() { tee -a "$runner_log"; }

# step NAME COMMAND...: runs one step and records its wall time. A failing
# step still records its time before the script stops.
step() {
  local name=$1 start=$SECONDS rc=0
  shift
  echo "=== $name"
  "$@" || rc=$?
  printf '%s\t%d\n' "$name" $((SECONDS - start)) >>"$times_log"
  echo "=== $name: $((SECONDS - start)) s"
  return $rc
}

# Where the time went, whether the run passed or not.
report_times() {
  echo "=== step times (wall clock)"
  awk -F'\t' '{ printf "  %-40s %4d:%02d\n", $1, $2 / 60, $2 % 60 }' "$times_log"
  printf '  %-40s %4d:%02d\n' total $(((SECONDS - test_start) / 60)) $(((SECONDS - test_start) % 60))
}
trap 'report_times; rm -f "$runner_log" "$times_log"' EXIT

# The test programs each ctest preset must run tests of; the sanitizer
# presets leave out the kernel-constraint check.
suites="tests_kport tests_netlink tests_bypass tests_debug tests_container tests_frag tests_timng
  tests_wlan_lb tests_sdk tests_host tests_host_sources tests_vanectl main_job_short"

run_suite() {
  local preset=$1 expected=$suites
  [ "$preset" = default ] && expected="$expected kernel_constraints"
  cmake --preset "$preset" >/dev/null || return
  cmake --build --preset "$preset" || return
  # shellcheck disable=SC2086 # one label per word
  ctest --preset "$preset" 2>&1 | bash tools/check-ran.sh ctest $expected | tally
}

# runner NAME COMMAND...: a step whose "<name>: N passed, M failed" lines
# count toward the total, and must show a pass.
runner() {
  local name=$1
  shift
  step "$name" bash -c 'set -o pipefail; "$@" 2>&1 | bash tools/check-ran.sh runs' - "$@" | tally
}

step "packages" bash tools/setup-deps.sh
step "build and test: default" run_suite default
step "build and test: asan" run_suite asan
step "build and test: tsan" run_suite tsan
step "formatting" bash tools/check-format.sh
step "clang-tidy" bash tools/lint.sh
step "mutation tool self-test" bash tools/mutate/selftest.sh
runner "sparse" bash tools/sparse.sh
runner "libFuzzer" bash tools/fuzz.sh

if [ "${VANE_SKIP_QEMU:-0}" != 1 ]; then
  step "qemu packages and arm64 kernel" bash tests/qemu/setup.sh
  runner "guest x86_64" bash tests/qemu/run.sh x86_64
  runner "guest arm64" bash tests/qemu/run.sh arm64
  step "debug kernel build: kasan" bash tests/qemu/debug-kernel.sh kasan >/dev/null
  runner "guest kasan" bash tests/qemu/run.sh kasan
  step "debug kernel build: kcsan" bash tests/qemu/debug-kernel.sh kcsan >/dev/null
  runner "guest kcsan" bash tests/qemu/run.sh kcsan
  for bug in oob lockinv sleep timerfree leak; do
    runner "planted bug: kasan $bug" bash tests/qemu/run.sh kasan "$bug"
  done
  runner "planted bug: kcsan race" bash tests/qemu/run.sh kcsan race
fi

# Every runner's "N passed, M failed", added up: ctest says "...failed out of
# TOTAL", the qemu runs, sparse and fuzz "<name>: PASSED passed, FAILED failed".
sed -nE \
  -e 's/^[0-9]+% tests passed, ([0-9]+) tests failed out of ([0-9]+)$/\2 \1 ctest/p' \
  -e 's/^[a-z0-9_]+: ([0-9]+) passed, ([0-9]+) failed.*$/\1 \2 qemu/p' "$runner_log" |
  awk '{ if ($3 == "qemu") { p += $1; f += $2 } else { p += $1 - $2; f += $2 } }
       END { printf "all suites: %d passed, %d failed\n", p, f }'
