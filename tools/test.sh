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
# Set VANE_SKIP_QEMU=1 to leave out step 5.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/setup-deps.sh

runner_log=$(mktemp)
trap 'rm -f "$runner_log"' EXIT

# Passes a runner's output through and keeps a copy for the closing total.
tally() { tee -a "$runner_log"; }

run_suite() {
  local preset=$1
  echo "=== build and test: $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" 2>&1 | tally
}

run_suite default
run_suite asan
run_suite tsan

echo "=== formatting and clang-tidy (with thread-safety analysis)"
bash tools/check-format.sh
bash tools/lint.sh

echo "=== sparse and libFuzzer"
bash tools/sparse.sh 2>&1 | tally
bash tools/fuzz.sh 2>&1 | tally

if [ "${VANE_SKIP_QEMU:-0}" != 1 ]; then
  echo "=== kernel modules under qemu"
  bash tests/qemu/run.sh x86_64 2>&1 | tally
  bash tests/qemu/run.sh arm64 2>&1 | tally
  bash tests/qemu/run.sh kasan 2>&1 | tally
  bash tests/qemu/run.sh kcsan 2>&1 | tally
  for bug in oob lockinv sleep timerfree leak; do
    bash tests/qemu/run.sh kasan "$bug" 2>&1 | tally
  done
  bash tests/qemu/run.sh kcsan race 2>&1 | tally
fi

# Every runner's "N passed, M failed", added up: ctest says "...failed out of
# TOTAL", the qemu runs, sparse and fuzz "<name>: PASSED passed, FAILED failed".
sed -nE \
  -e 's/^[0-9]+% tests passed, ([0-9]+) tests failed out of ([0-9]+)$/\2 \1 ctest/p' \
  -e 's/^[a-z0-9_]+: ([0-9]+) passed, ([0-9]+) failed.*$/\1 \2 qemu/p' "$runner_log" |
  awk '{ if ($3 == "qemu") { p += $1; f += $2 } else { p += $1 - $2; f += $2 } }
       END { printf "all suites: %d passed, %d failed\n", p, f }'
