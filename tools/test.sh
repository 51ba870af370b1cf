#!/usr/bin/env bash
# Installs what is needed, builds drv_vane and runs every test suite:
#   1. the user-space build and its GoogleTest suites (with the check that the
#      module core compiles under the kernel's constraints);
#   2. the same suites under AddressSanitizer + UndefinedBehaviorSanitizer;
#   3. the same suites under ThreadSanitizer;
#   4. formatting and clang-tidy;
#   5. the kernel modules in a real Linux kernel under qemu, x86_64 and
#      arm64 (cross-built).
# Set VANE_SKIP_QEMU=1 to leave out step 5.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/setup-deps.sh

run_suite() {
  local preset=$1
  echo "=== build and test: $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
}

run_suite default
run_suite asan
run_suite tsan

echo "=== formatting and clang-tidy (with thread-safety analysis)"
bash tools/check-format.sh
bash tools/lint.sh

if [ "${VANE_SKIP_QEMU:-0}" != 1 ]; then
  echo "=== kernel modules under qemu"
  bash tests/qemu/run.sh x86_64
  bash tests/qemu/run.sh arm64
fi
