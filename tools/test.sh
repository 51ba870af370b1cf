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

run_suite() {
  local preset=$1
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" 2>&1 | tally
}

step "packages" bash tools/setup-deps.sh
step "build and test: default" run_suite default
step "build and test: asan" run_suite asan
step "build and test: tsan" run_suite tsan
step "formatting" bash tools/check-format.sh
step "clang-tidy" bash tools/lint.sh
step "mutation tool self-test" bash tools/mutate/selftest.sh
step "sparse" bash -c 'bash tools/sparse.sh 2>&1' | tally
step "libFuzzer" bash -c 'bash tools/fuzz.sh 2>&1' | tally

if [ "${VANE_SKIP_QEMU:-0}" != 1 ]; then
  step "qemu packages and arm64 kernel" bash tests/qemu/setup.sh
  step "guest x86_64" bash -c 'bash tests/qemu/run.sh x86_64 2>&1' | tally
  step "guest arm64" bash -c 'bash tests/qemu/run.sh arm64 2>&1' | tally
  step "debug kernel build: kasan" bash tests/qemu/debug-kernel.sh kasan >/dev/null
  step "guest kasan" bash -c 'bash tests/qemu/run.sh kasan 2>&1' | tally
  step "debug kernel build: kcsan" bash tests/qemu/debug-kernel.sh kcsan >/dev/null
  step "guest kcsan" bash -c 'bash tests/qemu/run.sh kcsan 2>&1' | tally
  for bug in oob lockinv sleep timerfree leak; do
    step "planted bug: kasan $bug" bash -c "bash tests/qemu/run.sh kasan $bug 2>&1" | tally
  done
  step "planted bug: kcsan race" bash -c 'bash tests/qemu/run.sh kcsan race 2>&1' | tally
fi

# Every runner's "N passed, M failed", added up: ctest says "...failed out of
# TOTAL", the qemu runs, sparse and fuzz "<name>: PASSED passed, FAILED failed".
sed -nE \
  -e 's/^[0-9]+% tests passed, ([0-9]+) tests failed out of ([0-9]+)$/\2 \1 ctest/p' \
  -e 's/^[a-z0-9_]+: ([0-9]+) passed, ([0-9]+) failed.*$/\1 \2 qemu/p' "$runner_log" |
  awk '{ if ($3 == "qemu") { p += $1; f += $2 } else { p += $1 - $2; f += $2 } }
       END { printf "all suites: %d passed, %d failed\n", p, f }'
